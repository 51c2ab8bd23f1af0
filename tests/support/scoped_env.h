/*
 * An environment variable set, or unset with a null value, for a scope.
 */
#pragma once

#include <optional>
#include <stdlib.h>
#include <string>

namespace test_support {

class ScopedEnv {
public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        if (const char *old = getenv(name))
            old_ = old;
        apply(value);
    }
    ~ScopedEnv() { apply(old_ ? old_->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    void apply(const char *value)
    {
        if (value)
            setenv(name_.c_str(), value, 1);
        else
            unsetenv(name_.c_str());
    }

    std::string name_;
    std::optional<std::string> old_;
};

} // namespace test_support
