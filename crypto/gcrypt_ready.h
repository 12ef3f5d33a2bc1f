// libgcrypt wants to be initialised once per process, by the program or else by the first library
// that needs it. Called by the sources of this folder before any other libgcrypt call.
#pragma once

namespace crypto {

/// Initialises libgcrypt unless the host did. Any thread, cheap after the first call. False when
/// the installed library is older than 1.8.0.
bool gcrypt_ready();

/// Whether DES and MD5 give their published results here. Not so with a libgcrypt that is too old,
/// in FIPS mode, or without memory; one that lacked memory while it was initialised takes itself to
/// be in FIPS mode from then on. The library asks once, when it starts. Any thread.
bool gcrypt_works();

}  // namespace crypto
