// Leveled tracing per facility, the ring-buffer trace, and operator log messages.
//
// Each source file owns one facility handle ("Veld", "VeldIp6", ...); the host program sets
// levels per facility by name. Level 8 is the level of function-entry traces. A trace call
// site whose level is off costs one load and one predictable branch: the handle's threshold
// already folds in whether the ring buffer records, so nothing is formatted or allocated.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "mox/TraceArg.h"

namespace Ringlog {
class MsgDesc;

// A message's arguments as the ring keeps them: fields (" | " between them in a dump),
// each a run of pieces, each piece a tag and its bytes.
enum class Piece : char {
   field,        // a new field starts
   text,         // uint32 length, the bytes
   staticText,   // a char const* to text that lives as long as the program
   value,        // printer, uint8 size, the value's bytes
   iosManip,     // std::ios_base& (*)(std::ios_base&)
   streamManip,  // std::ostream& (*)(std::ostream&)
};
using ValuePrinter = void (*)(std::ostream&, void const*);

template <class T>
void printValue(std::ostream& os, void const* bytes) {
   static_assert(std::is_trivially_copyable_v<T>);
   alignas(T) unsigned char copy[sizeof(T)];
   std::memcpy(copy, bytes, sizeof(T));
   os << *std::launder(reinterpret_cast<T const*>(copy));
}

inline void putPiece(std::string& record, Piece tag, void const* bytes, size_t size) {
   record += static_cast<char>(tag);
   record.append(static_cast<char const*>(bytes), size);
}
inline void putText(std::string& record, std::string_view text) {
   auto size = static_cast<uint32_t>(text.size());
   putPiece(record, Piece::text, &size, sizeof size);
   record.append(text);
}
}  // namespace Ringlog

namespace Mox {

constexpr int kTraceFunctionLevel = 8;

class TraceHandle {
public:
   explicit TraceHandle(char const* facility);
   ~TraceHandle();
   TraceHandle(TraceHandle const&) = delete;
   TraceHandle& operator=(TraceHandle const&) = delete;

   bool enabled(int level) const { return level <= threshold_; }
   // Whether `level` goes to the leveled trace itself (not only to the ring buffer).
   bool traceEnabled(int level) const { return level <= level_; }
   char const* facility() const { return facility_; }
   int level() const { return level_; }
   void levelIs(int level);

   // Recomputes the threshold after the ring buffer opened or closed.
   void recompute();

private:
   char const* facility_;
   int level_ = -1;
   int threshold_ = -1;
};

// One emitted trace line.
struct TraceRecord {
   char const* facility;
   int level;
   char const* file;
   int line;
   char const* function;  // the full signature, e.g. "void Veld::Root::handleInitialized()"
   std::string text;
};

// Where enabled traces go. The default writes "facility level file:line function text" to
// stderr; tests install a recorder.
class TraceSink {
public:
   virtual ~TraceSink() = default;
   virtual void write(TraceRecord const& record) = 0;
};

// Sets the level of every handle of `facility` ("*" for all, also those registered later).
void traceLevelIs(std::string_view facility, int level);
// Parses "Facility/level[,Facility/level...]" as given on a command line; false when malformed.
bool traceLevelsFromString(std::string_view levels);
// Replaces the sink; nullptr restores the default. Returns the previous one.
TraceSink* traceSinkIs(TraceSink* sink);
std::vector<std::string> traceFacilities();

// Whether a trace argument of type T has a way into the ring buffer other than its text
// (TraceArg.h).
template <class T>
concept TraceKept = std::is_convertible_v<T const&, std::string_view> || requires(T const& v) {
   traceText(v);
} || traceByValue<T>;

// Where a trace's `<<` arguments go: the text of a trace that the sink writes, or the record
// of one that only the ring buffer keeps (TraceArg.h). It is a std::ostream, so that an
// argument whose operator<< is declared where the trace is (and nowhere else) prints as it
// always did: into the text, or into the record as text.
class TraceOut : public std::ostream {
public:
   TraceOut() : std::ostream(&buf_) {}
   template <TraceKept T>
   TraceOut& operator<<(T const& v) {
      if (!buf_.record) {
         static_cast<std::ostream&>(*this) << v;
      } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
         Ringlog::putText(*buf_.record, std::string_view(v));
      } else if constexpr (requires { traceText(v); }) {
         Ringlog::putText(*buf_.record, traceText(v));
      } else {
         static_assert(sizeof(T) < 256);
         Ringlog::ValuePrinter print = &Ringlog::printValue<T>;
         Ringlog::putPiece(*buf_.record, Ringlog::Piece::value, &print, sizeof print);
         *buf_.record += static_cast<char>(sizeof(T));
         buf_.record->append(reinterpret_cast<char const*>(&v), sizeof(T));
      }
      return *this;
   }
   TraceOut& operator<<(std::ios_base& (*manip)(std::ios_base&));
   TraceOut& operator<<(std::ostream& (*manip)(std::ostream&));
   TraceOut& operator<<(void const* p);

private:
   friend class TraceHelper;
   // Starts a trace: into `text`, or else into the ring buffer's `record`.
   void start(std::string* text, std::string* record);

   // What goes through the stream itself: appended to the text, or to the record as text.
   struct Buf : std::streambuf {
      std::string* text = nullptr;
      std::string* record = nullptr;
      std::streamsize xsputn(char const* s, std::streamsize n) override;
      int_type overflow(int_type c) override;
   };
   Buf buf_;
};

// Collects one trace; emits it on destruction.
class TraceHelper {
public:
   TraceHelper(TraceHandle const& handle, int level, char const* file, int line,
               char const* function, Ringlog::MsgDesc* desc);
   ~TraceHelper();
   TraceHelper(TraceHelper const&) = delete;
   TraceHelper& operator=(TraceHelper const&) = delete;
   TraceOut& stream() { return *out_; }

private:
   TraceHandle const& handle_;
   int level_;
   char const* file_;
   int line_;
   char const* function_;
   Ringlog::MsgDesc* desc_;
   TraceOut* out_;
   std::string* text_ = nullptr;    // for a trace the sink writes
   std::string* record_ = nullptr;  // for one only the ring buffer keeps
};

// Operator log messages: always emitted (to stderr and the log sink), rate limited per
// message identifier so a flapping condition cannot flood the log.
enum class LogSeverity { error, warning, notice, info };
struct LogRecord {
   LogSeverity severity;
   std::string id;
   std::string text;
};
using LogSink = std::function<void(LogRecord const&)>;
LogSink logSinkIs(LogSink sink);  // returns the previous sink; empty restores the default

class LogHandle {
public:
   LogHandle(char const* id, LogSeverity severity, double minIntervalSeconds = 0.0);
   bool okToLog() const;
   void log(std::string const& text) const;

private:
   char const* id_;
   LogSeverity severity_;
   double minInterval_;
   mutable double lastLogged_ = -1e300;
};

void logMessage(LogSeverity severity, char const* id, std::string const& text);
// One line for an operation that failed with errno `err`: "<what>: <errno text>". Every
// kernel or file operation that can fail reports through this, so that none fails silently
// and each report names its place and cause.
void logFailure(char const* id, std::string const& what, int err,
                LogSeverity severity = LogSeverity::error);

}  // namespace Mox

namespace Ringlog {

// One call site: file, line and the format text; registered once on first use.
class MsgDesc {
public:
   MsgDesc(char const* file, int line, char const* format);
   char const* file() const { return file_; }
   int line() const { return line_; }
   char const* format() const { return format_; }
   uint32_t id() const { return id_; }

private:
   char const* file_;
   int line_;
   char const* format_;
   uint32_t id_;
};

// A fixed-size ring of messages: each holds its descriptor, a time and its arguments. The
// oldest messages are overwritten.
class RingBuf {
public:
   explicit RingBuf(size_t capacity);
   // Starts a message; returns its record, to which pieces may be added until the next
   // message starts (Piece).
   std::string& startMsg(MsgDesc const& desc);
   // A field of text or a number.
   void put(std::string_view arg);
   void put(int64_t arg);
   void endMsg();
   // Oldest first, one line per message: "time file:line format | args".
   std::string dump() const;
   size_t size() const { return count_; }
   void clear();

private:
   // Messages are stamped with a cheap tick counter, turned into steady-clock seconds when
   // the ring is dumped, by the ticks' rate between the ring's creation and the dump.
   struct Clock {
      Clock();
      uint64_t ticks() const;
      double secondsPerTick() const;

      bool tsc = false;  // the CPU's time-stamp counter, where the kernel keeps time by it
      uint64_t ticks0 = 0;
      double seconds0 = 0.0;
   };
   struct Msg {
      MsgDesc const* desc = nullptr;
      uint64_t ticks = 0;
      std::string args;  // pieces
   };
   Clock clock_;
   std::vector<Msg> ring_;
   size_t next_ = 0;
   size_t count_ = 0;
   Msg* open_ = nullptr;
};

// The default ring buffer: open while a host program wants it. Opening or closing it
// recomputes every trace handle's threshold.
void open(size_t capacity = 4096);
void close();
bool isOpen();
RingBuf* defaultBuf();
// Messages at or below this level go to the ring buffer (8 by default: function entries).
void levelIs(int level);
int level();

// Times a block; appends "<label> took <microseconds> us" when destroyed.
class BlockTimerMsg {
public:
   BlockTimerMsg(MsgDesc const& desc, std::string_view label);
   ~BlockTimerMsg();

private:
   MsgDesc const& desc_;
   std::string label_;
   double start_;
};

}  // namespace Ringlog

// Trace call sites. Macros because a trace must name its own file, line and signature, and
// must not evaluate its arguments when disabled.
#define MOX_TRACE_LIKELY_OFF(x) __builtin_expect(!!(x), 0)

// The enabled path is an out-of-line cold lambda, so a disabled call site adds a load, a
// compare and a branch to its function and nothing else (no spills, no frame).
#define MOX_TRACE(handle, lvl, expr)                                                \
   do {                                                                             \
      if (MOX_TRACE_LIKELY_OFF((handle).enabled(lvl))) {                            \
         char const* moxTraceFunction_ = __PRETTY_FUNCTION__;                       \
         [&]() __attribute__((noinline, cold)) {                                    \
            static ::Ringlog::MsgDesc moxTraceDesc_(__FILE__, __LINE__, #expr);     \
            ::Mox::TraceHelper moxTraceHelper_((handle), (lvl), __FILE__, __LINE__, \
                                               moxTraceFunction_, &moxTraceDesc_);  \
            moxTraceHelper_.stream() << expr;                                       \
         }                                                                          \
         ();                                                                        \
      }                                                                             \
   } while (0)

// Function entry at level 8: the signature, then whatever the caller adds (a key).
#define MOX_TRACE_FN(handle, expr) MOX_TRACE(handle, ::Mox::kTraceFunctionLevel, expr)
#define MOX_TRACE_FN0(handle) MOX_TRACE(handle, ::Mox::kTraceFunctionLevel, "")
