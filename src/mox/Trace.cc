#include "mox/Trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>

namespace Mox {
namespace {

struct Registry {
   std::vector<TraceHandle*> handles;
   std::map<std::string, int, std::less<>> levels;  // facility -> level set by the host
   int allLevel = -1;                               // level set with "*"
};

Registry& registry() {
   static Registry r;
   return r;
}

int configuredLevel(std::string_view facility) {
   auto& r = registry();
   auto it = r.levels.find(facility);
   return it != r.levels.end() ? it->second : r.allLevel;
}

class StderrSink : public TraceSink {
public:
   void write(TraceRecord const& r) override {
      std::fprintf(stderr, "%s/%d %s:%d %s %s\n", r.facility, r.level, r.file, r.line, r.function,
                   r.text.c_str());
   }
};

StderrSink stderrSink;
TraceSink* currentSink = &stderrSink;

char const* baseName(char const* path) {
   char const* slash = std::strrchr(path, '/');
   return slash ? slash + 1 : path;
}

double steadySeconds() {
   using namespace std::chrono;
   return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

TraceHandle::TraceHandle(char const* facility) : facility_(facility) {
   registry().handles.push_back(this);
   level_ = configuredLevel(facility_);
   recompute();
}

TraceHandle::~TraceHandle() {
   auto& hs = registry().handles;
   hs.erase(std::remove(hs.begin(), hs.end(), this), hs.end());
}

void TraceHandle::levelIs(int level) {
   level_ = level;
   recompute();
}

void TraceHandle::recompute() {
   threshold_ = std::max(level_, Ringlog::isOpen() ? Ringlog::level() : -1);
}

void traceLevelIs(std::string_view facility, int level) {
   auto& r = registry();
   if (facility == "*") {
      r.allLevel = level;
      r.levels.clear();
      for (auto* h : r.handles)
         h->levelIs(level);
      return;
   }
   r.levels[std::string(facility)] = level;
   for (auto* h : r.handles) {
      if (facility == h->facility()) h->levelIs(level);
   }
}

bool traceLevelsFromString(std::string_view levels) {
   std::vector<std::pair<std::string, int>> parsed;
   while (!levels.empty()) {
      auto comma = levels.find(',');
      auto item = levels.substr(0, comma);
      levels = comma == std::string_view::npos ? std::string_view{} : levels.substr(comma + 1);
      auto slash = item.find('/');
      if (slash == std::string_view::npos || slash == 0 || slash + 1 == item.size()) return false;
      int level = 0;
      for (char c : item.substr(slash + 1)) {
         if (c < '0' || c > '9' || level > 100) return false;
         level = level * 10 + (c - '0');
      }
      parsed.emplace_back(std::string(item.substr(0, slash)), level);
   }
   for (auto& [facility, level] : parsed)
      traceLevelIs(facility, level);
   return true;
}

TraceSink* traceSinkIs(TraceSink* sink) {
   TraceSink* previous = currentSink == &stderrSink ? nullptr : currentSink;
   currentSink = sink ? sink : &stderrSink;
   return previous;
}

std::vector<std::string> traceFacilities() {
   std::vector<std::string> out;
   for (auto* h : registry().handles)
      out.emplace_back(h->facility());
   std::sort(out.begin(), out.end());
   out.erase(std::unique(out.begin(), out.end()), out.end());
   return out;
}

namespace {
thread_local std::vector<std::unique_ptr<std::ostringstream>> traceStreams;
thread_local size_t traceDepth = 0;
}  // namespace

TraceHelper::TraceHelper(TraceHandle const& handle, int level, char const* file, int line,
                         char const* function, Ringlog::MsgDesc* desc)
    : handle_(handle), level_(level), file_(file), line_(line), function_(function), desc_(desc) {
   if (traceStreams.size() <= traceDepth) {
      traceStreams.push_back(std::make_unique<std::ostringstream>());
   }
   stream_ = traceStreams[traceDepth++].get();
   stream_->str(std::string());
   stream_->clear();
   stream_->flags(std::ios_base::dec | std::ios_base::skipws);
   stream_->precision(6);
   stream_->fill(' ');
}

TraceHelper::~TraceHelper() {
   std::string text = stream_->str();
   --traceDepth;
   if (handle_.traceEnabled(level_)) {
      currentSink->write(
          TraceRecord{handle_.facility(), level_, baseName(file_), line_, function_, text});
   }
   if (Ringlog::isOpen() && level_ <= Ringlog::level() && desc_) {
      auto* buf = Ringlog::defaultBuf();
      buf->startMsg(*desc_);
      buf->put(function_);
      buf->put(text);
      buf->endMsg();
   }
}

namespace {
LogSink currentLogSink;
}

LogSink logSinkIs(LogSink sink) {
   auto previous = std::move(currentLogSink);
   currentLogSink = std::move(sink);
   return previous;
}

void logFailure(char const* id, std::string const& what, int err, LogSeverity severity) {
   logMessage(severity, id, what + ": " + std::strerror(err));
}

void logMessage(LogSeverity severity, char const* id, std::string const& text) {
   static char const* const names[] = {"ERROR", "WARNING", "NOTICE", "INFO"};
   if (currentLogSink) {
      currentLogSink(LogRecord{severity, id, text});
      return;
   }
   std::fprintf(stderr, "%%%s-%s: %s\n", id, names[static_cast<int>(severity)], text.c_str());
}

LogHandle::LogHandle(char const* id, LogSeverity severity, double minIntervalSeconds)
    : id_(id), severity_(severity), minInterval_(minIntervalSeconds) {}

bool LogHandle::okToLog() const {
   return minInterval_ <= 0.0 || steadySeconds() - lastLogged_ >= minInterval_;
}

void LogHandle::log(std::string const& text) const {
   if (!okToLog()) return;
   lastLogged_ = steadySeconds();
   logMessage(severity_, id_, text);
}

}  // namespace Mox

namespace Ringlog {
namespace {

std::vector<MsgDesc const*>& descriptors() {
   static std::vector<MsgDesc const*> d;
   return d;
}

RingBuf* defaultRing = nullptr;
int ringLevel = Mox::kTraceFunctionLevel;

void recomputeHandles() {
   for (auto* h : Mox::registry().handles)
      h->recompute();
}

}  // namespace

MsgDesc::MsgDesc(char const* file, int line, char const* format)
    : file_(Mox::baseName(file)), line_(line), format_(format) {
   id_ = static_cast<uint32_t>(descriptors().size());
   descriptors().push_back(this);
}

RingBuf::RingBuf(size_t capacity) : ring_(std::max<size_t>(capacity, 1)) {}

void RingBuf::startMsg(MsgDesc const& desc) {
   Msg& m = ring_[next_];
   m.desc = &desc;
   m.time = Mox::steadySeconds();
   m.args.clear();
   open_ = &m;
}

void RingBuf::put(std::string_view arg) {
   if (!open_) return;
   if (!open_->args.empty()) open_->args += " | ";
   open_->args.append(arg);
}

void RingBuf::put(int64_t arg) { put(std::string_view(std::to_string(arg))); }

void RingBuf::endMsg() {
   if (!open_) return;
   open_ = nullptr;
   next_ = (next_ + 1) % ring_.size();
   count_ = std::min(count_ + 1, ring_.size());
}

std::string RingBuf::dump() const {
   std::string out;
   size_t first = (next_ + ring_.size() - count_) % ring_.size();
   for (size_t i = 0; i < count_; ++i) {
      Msg const& m = ring_[(first + i) % ring_.size()];
      char head[64];
      std::snprintf(head, sizeof head, "%.6f ", m.time);
      out += head;
      out += m.desc->file();
      out += ':';
      out += std::to_string(m.desc->line());
      out += ' ';
      out += m.desc->format();
      out += " | ";
      out += m.args;
      out += '\n';
   }
   return out;
}

void RingBuf::clear() {
   next_ = 0;
   count_ = 0;
   open_ = nullptr;
}

void open(size_t capacity) {
   if (defaultRing) return;
   defaultRing = new RingBuf(capacity);
   recomputeHandles();
}

void close() {
   delete defaultRing;
   defaultRing = nullptr;
   recomputeHandles();
}

bool isOpen() { return defaultRing != nullptr; }

RingBuf* defaultBuf() { return defaultRing; }

void levelIs(int level) {
   ringLevel = level;
   recomputeHandles();
}

int level() { return ringLevel; }

BlockTimerMsg::BlockTimerMsg(MsgDesc const& desc, std::string_view label)
    : desc_(desc), label_(label), start_(Mox::steadySeconds()) {}

BlockTimerMsg::~BlockTimerMsg() {
   if (!defaultRing) return;
   defaultRing->startMsg(desc_);
   defaultRing->put(label_ + " took " +
                    std::to_string(static_cast<int64_t>((Mox::steadySeconds() - start_) * 1e6)) +
                    " us");
   defaultRing->endMsg();
}

}  // namespace Ringlog
