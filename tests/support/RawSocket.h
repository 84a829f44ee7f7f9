#pragma once

#include <sys/un.h>

#include <string>
#include <string_view>

#include "kit/UniqueFd.h"

namespace tavra::testing {

// A raw client for the framing cases a one-shot client cannot produce.
sockaddr_un addressOf(const std::string& path);
// Connected (the test fails otherwise), reading with a 60-second time-out.
UniqueFd rawConnect(const std::string& path);
// Whether every byte went out; never raises SIGPIPE.
bool rawWrite(int fd, std::string_view data);
// Everything the peer sends until it closes the connection.
std::string readToEnd(int fd);

}  // namespace tavra::testing
