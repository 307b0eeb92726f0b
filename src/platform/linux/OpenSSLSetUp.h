#pragma once

namespace kestrowan {

/// Makes OpenSSL ready without its configuration: no file, engine or module that the environment
/// or the system names is loaded, now or later. Called before every use of OpenSSL that would make
/// it ready otherwise, curl's included. May be called again, from any thread. False when the
/// library cannot be used.
bool setUpOpenSSL();

}  // namespace kestrowan
