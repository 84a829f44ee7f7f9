#include "support/ScopedEnv.h"

#include <stdlib.h>

namespace tavra::testing {

namespace {
void put(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        ::setenv(name.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name.c_str());
    }
}
}  // namespace

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* old = ::getenv(name_.c_str())) previous_ = old;
    put(name_, value);
}

ScopedEnv::~ScopedEnv() {
    put(name_, previous_);
}

}  // namespace tavra::testing
