#pragma once

#include <string>
#include <vector>

namespace kestrowan::mount {

/// The first of `places` (absolute paths) with a program that root alone can have put there: it,
/// and every part of the way to it, belongs to root, and no other user may write there. Usable from
/// every thread. Throws `NSError` of `NSPOSIXErrorDomain` with a text for a person: ENOENT when
/// there is no program in any place, EACCES, with the part that is at fault, when there is none to
/// be trusted.
std::string systemProgram(const std::vector<std::string>& places);

}  // namespace kestrowan::mount
