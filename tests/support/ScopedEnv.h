#pragma once

#include <optional>
#include <string>

namespace tavra::testing {

// Sets (or, with nullopt, unsets) one environment variable for the lifetime of
// the object and puts back the previous value afterwards. Not thread-safe, as
// the environment itself is not.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace tavra::testing
