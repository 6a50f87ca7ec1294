#include "agent/JsonRead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>

#include "linux/Fd.h"

namespace VeldAgent {

using Json = nlohmann::json;

std::string DocError::toString() const {
   return (pointer.empty() ? std::string("(document)") : pointer) + ": " + message;
}

std::string pointerToken(std::string_view token) {
   std::string out;
   out.reserve(token.size());
   for (char c : token) {
      if (c == '~') {
         out += "~0";
      } else if (c == '/') {
         out += "~1";
      } else {
         out += c;
      }
   }
   return out;
}

std::string quotedForMessage(std::string_view text, size_t max) {
   std::string out = "\"";
   for (size_t i = 0; i < text.size() && i < max; ++i) {
      auto u = static_cast<unsigned char>(text[i]);
      if (u < 0x20 || u >= 0x7f || u == '"' || u == '\\') {
         char buf[8];
         std::snprintf(buf, sizeof buf, "\\x%02x", u);
         out += buf;
      } else {
         out += text[i];
      }
   }
   if (text.size() > max) out += "...";
   return out + "\"";
}

std::string dumpJson(Json const& value, int indent) {
   return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

namespace {

std::string sizeText(size_t bytes) {
   constexpr size_t kMiB = size_t{1} << 20;
   if (bytes >= kMiB && bytes % kMiB == 0) return std::to_string(bytes / kMiB) + " MiB";
   return std::to_string(bytes) + " bytes";
}

// "line 3, column 14" of the byte at `offset`.
std::string placeOf(std::string_view text, size_t offset) {
   size_t line = 1, column = 1;
   for (size_t i = 0; i < offset && i < text.size(); ++i) {
      if (text[i] == '\n') {
         ++line;
         column = 1;
      } else {
         ++column;
      }
   }
   return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// Builds the document as the parser reads it, knowing at each moment the JSON pointer of
// the value being read.
class Builder final : public nlohmann::json_sax<Json> {
public:
   Builder(std::string_view text, std::vector<DocError>* errors) : text_(text), errors_(errors) {}

   Json root;

   bool null() override { return put(nullptr); }
   bool boolean(bool v) override { return put(v); }
   bool number_integer(number_integer_t v) override { return put(v); }
   bool number_unsigned(number_unsigned_t v) override { return put(v); }
   bool number_float(number_float_t v, string_t const&) override { return put(v); }
   bool string(string_t& v) override { return put(std::move(v)); }
   bool binary(binary_t&) override { return put(nullptr); }  // not in JSON text

   bool start_object(size_t) override { return enter(false); }
   bool start_array(size_t) override { return enter(true); }
   bool end_object() override { return leave(); }
   bool end_array() override { return leave(); }

   bool key(string_t& k) override {
      auto& f = frames_.back();
      if (!f.keys.insert(k).second) {
         errors_->push_back({pointer(frames_.size() - 1) + "/" + pointerToken(k),
                             "the key " + quotedForMessage(k) + " is given twice"});
      }
      f.key = std::move(k);
      return true;
   }

   bool parse_error(size_t position, std::string const& token,
                    nlohmann::detail::exception const& ex) override {
      if (ex.id == 406) {  // a number beyond a double's range
         size_t start = position >= token.size() ? position - token.size() : 0;
         errors_->push_back({pointer(), "the number " + quotedForMessage(token, 32) +
                                            " is too large (at " + placeOf(text_, start) + ")"});
         return false;
      }
      size_t offset = position > 0 ? position - 1 : 0;
      if (auto const* pe = dynamic_cast<Json::parse_error const*>(&ex); pe && pe->byte > 0) {
         offset = pe->byte - 1;
      }
      errors_->push_back(
          {"", "not valid JSON at " + placeOf(text_, offset) + ": " + describe(ex, token)});
      return false;
   }

private:
   struct Frame {
      Json* value;
      bool array;
      size_t index = 0;  // the element being read, in an array
      std::string key;   // the member being read, in an object
      std::set<std::string> keys;
   };

   // The library's text without its "[json.exception...] parse error at ...: " lead and the
   // raw bytes it quotes last: those come back escaped.
   static std::string describe(nlohmann::detail::exception const& ex, std::string const& token) {
      std::string what = ex.what();
      if (auto col = what.find("column "); col != std::string::npos) {
         if (auto colon = what.find(": ", col); colon != std::string::npos) {
            what = what.substr(colon + 2);
         }
      } else if (auto lead = what.find("] "); lead != std::string::npos) {
         what = what.substr(lead + 2);
      }
      std::string tail = "; last read: '" + token + "'";
      if (what.size() >= tail.size() &&
          what.compare(what.size() - tail.size(), tail.size(), tail) == 0) {
         what.resize(what.size() - tail.size());
         if (!token.empty()) what += "; last read: " + quotedForMessage(token, 32);
      }
      return what;
   }

   // The pointer of the value being read, or of the container of the n-th frame.
   std::string pointer(size_t n = SIZE_MAX) const {
      std::string p;
      for (size_t i = 0; i < frames_.size() && i < n; ++i) {
         p += "/";
         p += frames_[i].array ? std::to_string(frames_[i].index) : pointerToken(frames_[i].key);
      }
      return p;
   }

   Json* slot() {
      if (frames_.empty()) return &root;
      auto& f = frames_.back();
      if (f.array) {
         f.value->push_back(nullptr);
         return &f.value->back();
      }
      return &(*f.value)[f.key];
   }

   template <class V>
   bool put(V&& v) {
      *slot() = std::forward<V>(v);
      elementDone();
      return true;
   }

   bool enter(bool array) {
      if (frames_.size() >= kMaxJsonDepth) {
         errors_->push_back(
             {"", "the document nests deeper than " + std::to_string(kMaxJsonDepth) + " levels"});
         return false;
      }
      Json* v = slot();
      *v = array ? Json::array() : Json::object();
      frames_.push_back(Frame{v, array, 0, {}, {}});
      return true;
   }

   bool leave() {
      frames_.pop_back();
      elementDone();
      return true;
   }

   void elementDone() {
      if (!frames_.empty() && frames_.back().array) ++frames_.back().index;
   }

   std::string_view text_;
   std::vector<DocError>* errors_;
   std::vector<Frame> frames_;
};

}  // namespace

std::optional<Json> readJson(std::string_view text, size_t maxBytes,
                             std::vector<DocError>* errors) {
   size_t before = errors->size();
   if (text.size() > maxBytes) {
      errors->push_back({"", "the document is larger than " + sizeText(maxBytes)});
      return std::nullopt;
   }
   if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
      errors->push_back({"", "the document is empty"});
      return std::nullopt;
   }
   Builder builder(text, errors);
   bool ok = Json::sax_parse(text.begin(), text.end(), &builder);
   if (!ok || errors->size() != before) {
      if (errors->size() == before) errors->push_back({"", "not valid JSON"});
      return std::nullopt;
   }
   return std::move(builder.root);
}

std::optional<DocError> readDocumentFile(std::string const& path, size_t maxBytes,
                                         std::string* text) {
   auto refused = [&](std::string why) {
      return DocError{"", "cannot read " + path + ": " + std::move(why)};
   };
   // Non-blocking, so that a FIFO without a writer is refused rather than waited for.
   Konet::Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
   if (!fd) return refused(std::strerror(errno));
   struct stat st;
   if (::fstat(fd.get(), &st) != 0) return refused(std::strerror(errno));
   if (S_ISDIR(st.st_mode)) return refused("it is a directory");
   if (!S_ISREG(st.st_mode)) return refused("it is not a regular file");
   if (static_cast<uint64_t>(st.st_size) > maxBytes) {
      return refused("it is larger than " + sizeText(maxBytes));
   }
   text->clear();
   char buf[65536];
   for (;;) {
      ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n < 0) {
         if (errno == EINTR) continue;
         return refused(std::strerror(errno));
      }
      if (n == 0) break;
      text->append(buf, static_cast<size_t>(n));
      if (text->size() > maxBytes) {
         return refused("it is larger than " + sizeText(maxBytes));
      }
   }
   return std::nullopt;
}

}  // namespace VeldAgent
