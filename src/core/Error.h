#pragma once

#include <exception>
#include <string>

namespace tavra {

// Root of every error the system throws. description() is the text shown to
// people and written to logs; what() returns the same characters.
class Error : public std::exception {
public:
    explicit Error(std::string description) : description_(std::move(description)) {}

    const std::string& description() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    std::string description_;
};

// A JSON document that does not have the shape of the record asked for.
class DecodingError : public Error {
public:
    using Error::Error;
};

}  // namespace tavra
