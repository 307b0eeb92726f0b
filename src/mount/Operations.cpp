#include "mount/Operations.h"

#include "mount/MarkerRequests.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

/// What is missing here, the kernel does by itself (locks, `access`, polling) or refuses.
fuse_lowlevel_ops makeOperations() {
  fuse_lowlevel_ops table = {};
  table.init = initialise;
  table.lookup = lookup;
  table.forget = forget;
  table.forget_multi = forgetMany;
  table.getattr = getAttributes;
  table.setattr = setAttributes;
  table.mknod = makeNode;
  table.mkdir = makeFolder;
  table.unlink = removeFile;
  table.rmdir = removeFolder;
  table.symlink = makeSymbolicLink;
  table.rename = rename;
  table.link = makeLink;
  table.create = create;
  table.open = open;
  table.read = read;
  table.write_buf = write;
  table.flush = flush;
  table.release = release;
  table.fsync = sync;
  table.opendir = openFolder;
  table.readdir = readFolder;
  table.readdirplus = readFolderPlus;
  table.releasedir = releaseFolder;
  table.fsyncdir = syncFolder;
  table.statfs = fileSystem;
  table.setxattr = setExtended;
  table.getxattr = getExtended;
  table.listxattr = listExtended;
  table.removexattr = removeExtended;
  table.ioctl = control;
  table.fallocate = allocate;
  table.copy_file_range = copyRange;
  table.lseek = seek;
  serveMarkers(table);
  return table;
}

}  // namespace

const fuse_lowlevel_ops& operations() {
  static const fuse_lowlevel_ops table = makeOperations();
  return table;
}

}  // namespace kestrowan::mount
