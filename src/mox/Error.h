// Framework errors. Machines never catch these: a range error, a name in use, a write to
// a read-only table or detected corruption is the caller's bug or the platform's, and
// travels up to whoever can decide. Invariants are assertions that carry their text.
#pragma once

#include <stdexcept>
#include <string>

namespace Mox {

class Exception : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

// A value outside its type's range: a bounded name too long, a null where an entity is
// required ("null _x parameter to mutator for T::x not allowed").
class RangeException : public Exception {
public:
   using Exception::Exception;
};

// Re-creating an owned child with a different constructor parameter.
class NameInUseException : public Exception {
public:
   using Exception::Exception;
};

[[noreturn]] void throwRangeException(std::string const& message);
[[noreturn]] void throwNameInUseException(std::string const& message);

}  // namespace Mox

namespace Cinder {

class Exception : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

class NoPermissionException : public Exception {
public:
   using Exception::Exception;
};

class CorruptionDetectedException : public Exception {
public:
   using Exception::Exception;
};

class InvalidSizeException : public Exception {
public:
   using Exception::Exception;
};

class UnimplementedException : public Exception {
public:
   using Exception::Exception;
};

class AssertException : public Exception {
public:
   AssertException(std::string expression, char const* file, int line, char const* function);
   // The asserted expression exactly as written at the call site, e.g. "initialized()".
   std::string const& expression() const { return expression_; }
   char const* file() const { return file_; }
   int line() const { return line_; }

private:
   std::string expression_;
   char const* file_;
   int line_;
};

// Prints the failed expression, its place and the function to stderr (the debug dump),
// then throws AssertException.
[[noreturn]] void debugAndThrowAssertException(char const* expression, char const* file, int line,
                                               char const* function);

}  // namespace Cinder

// Asserts an invariant; the exception carries the expression's text. A macro because only
// the preprocessor can turn the expression into text and name the call site.
#define MOX_ASSERT(expr)       \
   ((expr)                     \
        ? static_cast<void>(0) \
        : ::Cinder::debugAndThrowAssertException(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))
