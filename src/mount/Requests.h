#pragma once

#include "mount/Fuse.h"

namespace kestrowan::mount {

/// The requests of the kernel, by libfuse's names and with its arguments. Called on libfuse's
/// threads, which none of them blocks for longer than the disk does. Each is answered exactly once.

void initialise(void* userData, fuse_conn_info* connection) noexcept;

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept;
void forget(fuse_req_t request, fuse_ino_t item, uint64_t count) noexcept;
void forgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets) noexcept;

void openFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) noexcept;
void readFolder(fuse_req_t request, fuse_ino_t folder, size_t size, off_t offset,
                fuse_file_info* info) noexcept;
void readFolderPlus(fuse_req_t request, fuse_ino_t folder, size_t size, off_t offset,
                    fuse_file_info* info) noexcept;
void releaseFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) noexcept;
void syncFolder(fuse_req_t request, fuse_ino_t folder, int dataOnly, fuse_file_info* info) noexcept;

void create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) noexcept;
void open(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept;
void flush(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept;
void release(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept;
void sync(fuse_req_t request, fuse_ino_t item, int dataOnly, fuse_file_info* info) noexcept;

void read(fuse_req_t request, fuse_ino_t item, size_t size, off_t offset,
          fuse_file_info* info) noexcept;
void write(fuse_req_t request, fuse_ino_t item, fuse_bufvec* data, off_t offset,
           fuse_file_info* info) noexcept;
void allocate(fuse_req_t request, fuse_ino_t item, int mode, off_t offset, off_t length,
              fuse_file_info* info) noexcept;
void seek(fuse_req_t request, fuse_ino_t item, off_t offset, int whence,
          fuse_file_info* info) noexcept;
void copyRange(fuse_req_t request, fuse_ino_t from, off_t fromOffset, fuse_file_info* fromInfo,
               fuse_ino_t to, off_t toOffset, fuse_file_info* toInfo, size_t length,
               int flags) noexcept;
void control(fuse_req_t request, fuse_ino_t item, unsigned command, void* argument,
             fuse_file_info* info, unsigned flags, const void* input, size_t inputSize,
             size_t outputSize) noexcept;

void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
              dev_t device) noexcept;
void makeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) noexcept;
void removeFile(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept;
void removeFolder(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept;
void rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
            const char* newName, unsigned flags) noexcept;
void makeSymbolicLink(fuse_req_t request, const char* target, fuse_ino_t folder,
                      const char* name) noexcept;
void makeLink(fuse_req_t request, fuse_ino_t item, fuse_ino_t newFolder,
              const char* newName) noexcept;

void getAttributes(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept;
void setAttributes(fuse_req_t request, fuse_ino_t item, struct stat* wanted, int which,
                   fuse_file_info* info) noexcept;
void fileSystem(fuse_req_t request, fuse_ino_t item) noexcept;

void setExtended(fuse_req_t request, fuse_ino_t item, const char* name, const char* value,
                 size_t size, int flags) noexcept;
void getExtended(fuse_req_t request, fuse_ino_t item, const char* name, size_t size) noexcept;
void listExtended(fuse_req_t request, fuse_ino_t item, size_t size) noexcept;
void removeExtended(fuse_req_t request, fuse_ino_t item, const char* name) noexcept;

}  // namespace kestrowan::mount
