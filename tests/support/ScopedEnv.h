#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace tavra::testing {

// Sets (or, with nullopt, unsets) one environment variable for the lifetime of
// the object and puts back the previous value afterwards. Not thread-safe, as
// the environment itself is not.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
        if (const char* old = ::getenv(name_.c_str())) previous_ = old;
        put(value);
    }
    ~ScopedEnv() { put(previous_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    void put(const std::optional<std::string>& value) const {
        value ? ::setenv(name_.c_str(), value->c_str(), 1) : ::unsetenv(name_.c_str());
    }

    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace tavra::testing
