#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace kestrowan::host {

/// Sets or removes an environment variable, and puts the old value back.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { set(old_); }

 private:
  void set(const std::optional<std::string>& value) const {
    value ? ::setenv(name_, value->c_str(), 1) : ::unsetenv(name_);
  }
  const char* const name_;
  std::optional<std::string> old_;
};

}  // namespace kestrowan::host
