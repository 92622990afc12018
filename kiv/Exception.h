#pragma once
// Framework failures are exceptions of three kinds; the system never uses error codes.

#include <stdexcept>
#include <string>
#include <vector>

namespace Kiv {

class Exception : public std::runtime_error {
 public:
  enum class Kind { range, nameInUse, internal };
  Exception(Kind kind, std::string const& what) : std::runtime_error(what), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

class RangeException : public Exception {
 public:
  explicit RangeException(std::string const& what) : Exception(Kind::range, what) {}
};

class NameInUseException : public Exception {
 public:
  explicit NameInUseException(std::string const& what) : Exception(Kind::nameInUse, what) {}
};

class InternalException : public Exception {
 public:
  explicit InternalException(std::string const& what) : Exception(Kind::internal, what) {}
};

[[noreturn]] void throwRangeException(std::string const& what);
[[noreturn]] void throwNameInUseException(std::string const& what);
[[noreturn]] void throwInternalException(std::string const& what);

// Collects expectations now and reports them later, in one internal exception naming every one
// that failed: useful where a whole pass must run before the caller may be told.
class Expect {
 public:
  Expect() = default;
  Expect(Expect const&) = delete;
  Expect& operator=(Expect const&) = delete;

  // Records `what` as failed when `condition` is false; returns the condition.
  bool operator()(bool condition, std::string what);
  bool ok() const { return failed_.empty(); }
  std::vector<std::string> const& failed() const { return failed_; }
  // Throws an internal exception listing the failed expectations, if any, and forgets them.
  void check();

 private:
  std::vector<std::string> failed_;
};

}  // namespace Kiv
