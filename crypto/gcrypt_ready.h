// libgcrypt wants to be initialised once per process, by the program or else by the first library
// that needs it. Called by the sources of this folder before any other libgcrypt call.
#pragma once

namespace crypto {

/// Initialises libgcrypt unless the host did. Any thread, cheap after the first call. False when
/// the installed library is older than the one that this was built with.
bool gcrypt_ready();

}  // namespace crypto
