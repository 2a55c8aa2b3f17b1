#pragma once

namespace orv::brokerd {

/// The version in the name is that of the client protocol, also found in the version file.
constexpr char kServerAddress[] = ":orvbrokerd-1.3.skt";

/// Opens the socket that local clients connect to, in the abstract Unix-domain namespace, and listens on it.
/// Returns its descriptor, or -1 after logging why; then nothing is left open.
[[nodiscard]] int create_server_socket(const char* address = kServerAddress);

/// Closes it. Returns 0, or -1 when close() failed.
int close_server_socket(int fd);

} // namespace orv::brokerd
