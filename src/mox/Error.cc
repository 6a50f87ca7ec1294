#include "mox/Error.h"

#include <cstdio>

namespace Mox {

void throwRangeException(std::string const& message) { throw RangeException(message); }

void throwNameInUseException(std::string const& message) { throw NameInUseException(message); }

}  // namespace Mox

namespace Cinder {

AssertException::AssertException(std::string expression, char const* file, int line,
                                 char const* function)
    : Exception("assertion \"" + expression + "\" failed in " + function + " at " + file + ":" +
                std::to_string(line)),
      expression_(std::move(expression)),
      file_(file),
      line_(line) {}

void debugAndThrowAssertException(char const* expression, char const* file, int line,
                                  char const* function) {
   std::fprintf(stderr, "%s:%d: %s: assertion \"%s\" failed\n", file, line, function, expression);
   throw AssertException(expression, file, line, function);
}

}  // namespace Cinder
