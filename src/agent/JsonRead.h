// Reading a JSON document that comes from outside the agent: a configuration file, the
// applied-configuration record, a control-socket request.
//
// Whatever the bytes are, the reader returns a value or errors with their places; it never
// throws. It refuses, each with its place:
//  - a document larger than the caller's limit, or nested deeper than 32 levels;
//  - text that is not JSON, invalid UTF-8 in a string among it (line and column);
//  - a number too large for a double, such as 1e999 (line, column and the JSON pointer of
//    the value it was meant to be);
//  - a key given twice in one object (its JSON pointer; the parser alone would keep the
//    last one silently).
// The value is built by the reader itself while the parser runs, so that each of these is
// seen where it happens rather than as an exception thrown out of the parser.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VeldAgent {

// A problem with a document, at its place.
struct DocError {
   std::string pointer;  // JSON pointer of the place ("" is the whole document)
   std::string message;
   std::string toString() const;
};

inline constexpr size_t kMaxJsonDepth = 32;

// The document in `text`, or nullopt with at least one error in *errors.
std::optional<nlohmann::json> readJson(std::string_view text, size_t maxBytes,
                                       std::vector<DocError>* errors);

// Reads the regular file at `path` (at most maxBytes) into *text. On failure, an error
// naming the file and what is wrong with it ("is a directory", the errno text).
std::optional<DocError> readDocumentFile(std::string const& path, size_t maxBytes,
                                         std::string* text);

// One reference token of a JSON pointer, escaped ("~" as "~0", "/" as "~1").
std::string pointerToken(std::string_view token);

// Text from outside for a message: in double quotes, bytes that are not printable ASCII
// as \xNN, cut after `max` bytes with "...".
std::string quotedForMessage(std::string_view text, size_t max = 64);

// A value as JSON text that is always valid: a string that is not valid UTF-8 (a kernel
// device name can be any bytes) has its bad bytes replaced instead of failing the dump.
std::string dumpJson(nlohmann::json const& value, int indent = -1);

}  // namespace VeldAgent
