#pragma once

namespace kestrowan {

/// Makes OpenSSL ready without its configuration: no file, engine or module that the environment
/// or the system names is loaded, now or later. Called before every use of OpenSSL that would make
/// it ready otherwise, curl's included. May be called again, from any thread. False when the
/// library cannot be used.
bool setUpOpenSSL();

/// Frees what OpenSSL keeps for the calling thread, which is about to end.
///
/// OpenSSL does so itself when a thread ends, from the destructor of one key of thread storage. By
/// then glibc has forgotten the values of all lower keys. The library's other keys are lower when
/// another library has deleted one of its own in between.
void freeOpenSSLOfThread() noexcept;

}  // namespace kestrowan
