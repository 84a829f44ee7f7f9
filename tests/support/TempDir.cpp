#include "support/TempDir.h"

#include <stdlib.h>

#include <stdexcept>
#include <system_error>

namespace tavra::testing {

TempDir::TempDir() {
    char tmpl[] = "/tmp/tavra-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

}  // namespace tavra::testing
