// The key that all cards of a chassis share. Who has it is root of one of them.
#pragma once

#include <optional>
#include <string>

#include "hmac_sha256.h"

// 64 hexadecimal digits and a newline; a regular file of root's that nobody else may read or write.
constexpr const char *CHASSIS_KEY_FILE = "/etc/bios-daemon/chassis.key";

// Reads a key. None with errno:
//   EACCES   others may read or write the file, or it belongs to neither root nor this user
//   EINVAL   it holds no key
//   else     that of the call that failed
std::optional<shared_key> read_chassis_key(const char *path);

// That of CHASSIS_KEY_FILE, read at the first call that succeeds. Null with errno as above.
const shared_key *chassis_key();
