#include "mox/Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

#include "mox/Dir.h"
#include "mox/Enum.h"

namespace {

Mox::TraceHandle th("MoxTraceTest");

struct Capture : Mox::TraceSink {
   std::vector<Mox::TraceRecord> records;
   void write(Mox::TraceRecord const& r) override { records.push_back(r); }
};

struct Sinked {
   Capture cap;
   Sinked() { Mox::traceSinkIs(&cap); }
   ~Sinked() {
      Mox::traceSinkIs(nullptr);
      Mox::traceLevelIs("MoxTraceTest", -1);
      Ringlog::close();
   }
};

int evaluated = 0;
int sideEffect() {
   ++evaluated;
   return 42;
}

struct Machine {
   void handleInitialized(int key) { MOX_TRACE_FN(th, " key " << key << " v " << sideEffect()); }
};

// Argument kinds a trace meets: kept as bytes, kept as text, formatted at once.
struct Point {
   int x, y;
   friend std::ostream& operator<<(std::ostream& os, Point p) {
      return os << "(" << p.x << "," << p.y << ")";
   }
};
}  // namespace

namespace {}  // namespace

template <>
inline constexpr bool Mox::traceByValue<Point> = true;

namespace {

struct Label {
   std::string s;
   friend std::ostream& operator<<(std::ostream& os, Label const& l) { return os << l.s; }
};
std::string_view traceText(Label const& l) { return l.s; }
struct Opaque {  // neither: formatted when traced
   std::vector<int> v;
   friend std::ostream& operator<<(std::ostream& os, Opaque const& o) {
      return os << "[" << o.v.size() << "]";
   }
};
}  // namespace

namespace Other {
struct Far {  // printed by an operator<< that only the trace's own file declares
   int v;
};
}  // namespace Other

namespace {

std::ostream& operator<<(std::ostream& os, Other::Far const& f) { return os << "far" << f.v; }

enum class Colour { red, green };
std::ostream& operator<<(std::ostream& os, Colour c) {
   return os << (c == Colour::red ? "red" : "green");
}

int nested() {
   MOX_TRACE(th, 8, "inner " << 7);
   return 3;
}

// Traces nested as deep as the recursion goes.
int deep(int n) {
   MOX_TRACE(th, 8, "depth " << n << " " << (n > 0 ? deep(n - 1) : -1));
   return n;
}

void everyKind(std::string const& name) {
   MOX_TRACE(th, 8,
             "p " << (Point{1, -2}) << " l " << Label{"Ethernet1"} << " o " << (Opaque{{1, 2}})
                  << " c " << Colour::green << " d " << 0.1234567 << " b " << true << " ch " << 'x'
                  << " u8 " << uint8_t(65) << " hex " << std::hex << 255 << std::dec << " n "
                  << nested() << " tmp " << (name + "!").c_str() << " sv " << std::string_view(name)
                  << " m " << Mox::String("str") << " f " << Other::Far{5} << " after " << 6);
}

}  // namespace

TEST(Trace, DisabledCallSiteEvaluatesNothing) {
   Sinked s;
   evaluated = 0;
   Machine().handleInitialized(1);
   EXPECT_EQ(evaluated, 0);
   EXPECT_TRUE(s.cap.records.empty());
}

TEST(Trace, EnabledCallSiteCarriesFacilityLineAndSignature) {
   Sinked s;
   ASSERT_TRUE(Mox::traceLevelsFromString("MoxTraceTest/8"));
   Machine().handleInitialized(7);
   MOX_TRACE(th, 9, "too verbose");
   ASSERT_EQ(s.cap.records.size(), 1u);
   auto const& r = s.cap.records[0];
   EXPECT_STREQ(r.facility, "MoxTraceTest");
   EXPECT_EQ(r.level, 8);
   EXPECT_STREQ(r.function, "void {anonymous}::Machine::handleInitialized(int)");
   EXPECT_EQ(r.text, " key 7 v 42");
   EXPECT_STREQ(r.file, "TraceTest.cc");
   EXPECT_FALSE(Mox::traceLevelsFromString("MoxTraceTest"));
   EXPECT_FALSE(Mox::traceLevelsFromString("MoxTraceTest/x"));
}

TEST(Trace, RingBufferRecordsFunctionEntriesEvenWithTheTraceOff) {
   Sinked s;
   Ringlog::open(4);
   for (int i = 0; i < 6; ++i)
      Machine().handleInitialized(i);
   EXPECT_TRUE(s.cap.records.empty());
   auto* buf = Ringlog::defaultBuf();
   EXPECT_EQ(buf->size(), 4u);  // the oldest were overwritten
   std::string dump = buf->dump();
   EXPECT_EQ(dump.find(" key 1 "), std::string::npos);
   EXPECT_NE(dump.find(" key 5 v 42"), std::string::npos);
   EXPECT_NE(dump.find("TraceTest.cc:"), std::string::npos);
   Ringlog::close();
   evaluated = 0;
   Machine().handleInitialized(9);
   EXPECT_EQ(evaluated, 0);
}

// Traces made while the arguments of others are evaluated, deeper than the levels kept for
// reuse: the outer ones come out whole, and nothing breaks.
TEST(Trace, DeeplyNestedTracesKeepTheOuterOnesWhole) {
   Sinked s;
   Mox::traceLevelIs("MoxTraceTest", 8);
   Ringlog::open(64);
   deep(30);
   std::vector<std::string> texts;
   for (auto const& r : s.cap.records)
      texts.push_back(r.text);
   EXPECT_EQ(texts.size(), 31u);
   for (int n : {30, 25, 20, 16}) {
      EXPECT_NE(std::find(texts.begin(), texts.end(),
                          "depth " + std::to_string(n) + " " + std::to_string(n - 1)),
                texts.end())
          << n;
   }
   std::string dump = Ringlog::defaultBuf()->dump();
   EXPECT_NE(dump.find("| int {anonymous}::deep(int) | depth 30 29\n"), std::string::npos);
}

// The dump shows each message's time on the steady clock, however the ring stamps it.
TEST(Trace, RingBufferTimesAreSteadyClockSeconds) {
   auto steady = [] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
          .count();
   };
   double before = steady();
   Ringlog::open(4);
   Machine().handleInitialized(1);
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   Machine().handleInitialized(2);
   double after = steady();
   std::istringstream dump(Ringlog::defaultBuf()->dump());
   Ringlog::close();
   double first = 0, second = 0;
   std::string line;
   ASSERT_TRUE(dump >> first && std::getline(dump, line) && dump >> second);
   EXPECT_GE(first, before - 1e-3);
   EXPECT_LE(second, after + 1e-3);
   EXPECT_GE(second - first, 0.019);
}

TEST(Log, RateLimitedPerHandle) {
   std::vector<Mox::LogRecord> got;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { got.push_back(r); });
   Mox::LogHandle h("VELD-TEST", Mox::LogSeverity::warning, 3600.0);
   h.log("first");
   EXPECT_FALSE(h.okToLog());
   h.log("second");
   Mox::logSinkIs(previous);
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].text, "first");
   EXPECT_EQ(got[0].id, "VELD-TEST");
}

TEST(Log, AFailureIsOneLineWithItsPlaceAndCause) {
   std::vector<Mox::LogRecord> got;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { got.push_back(r); });
   Mox::logFailure("VELD-TEST", "Failed to write /proc/sys/net/ipv4/conf/et1/forwarding", EACCES);
   Mox::logSinkIs(previous);
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].severity, Mox::LogSeverity::error);
   EXPECT_EQ(got[0].text,
             "Failed to write /proc/sys/net/ipv4/conf/et1/forwarding: Permission denied");
   EXPECT_EQ(got[0].text.find('\n'), std::string::npos);
}

namespace MoxTestEnum {
enum class Mode : uint8_t { off = 0, loose = 1, strict = 2 };
constexpr auto moxEnumNames(Mode) {
   return Mox::EnumNames<Mode, 3>{
       {{Mode::off, "off"}, {Mode::loose, "loose"}, {Mode::strict, "strict"}}};
}
inline std::ostream& operator<<(std::ostream& os, Mode m) { return Mox::streamEnum(os, m); }
}  // namespace MoxTestEnum

TEST(Enum, EveryValueRoundTripsThroughNumberAndName) {
   using MoxTestEnum::Mode;
   for (auto const& n : moxEnumNames(Mode{})) {
      EXPECT_EQ(Mox::enumFromName<Mode>(Mox::stringValue(n.value)), n.value);
      EXPECT_EQ(Mox::enumFromValue<Mode>(Mox::enumValue(n.value)), n.value);
   }
   EXPECT_EQ(Mox::enumFromName<Mode>("medium"), std::nullopt);
   EXPECT_EQ(Mox::enumFromValue<Mode>(3), std::nullopt);
   std::ostringstream os;
   os << Mode::strict;
   EXPECT_EQ(os.str(), "strict");
}

TEST(Dir, EntriesAreNotifiedPerNameAndPlacedUnderTheDir) {
   auto dir = Mox::make<Mox::Dir>("interface");
   struct Watch : Mox::Dir::NotifieeConst {
      std::vector<std::string> names;
      void onEntry(Mox::Name const& n) override { names.push_back(n.string()); }
   };
   auto w = Mox::make<Watch>();
   w->notifierIs(dir);
   auto sub = dir->dirIs("config");
   EXPECT_EQ(dir->dirIs("config"), sub);
   auto e = Mox::make<Mox::Dir>("intf");
   sub->entryIs("intf", e);
   EXPECT_EQ(e->parent(), sub.ptr());
   EXPECT_EQ(dir->entityRef("config/intf"), e);
   dir->entryDel("config");
   EXPECT_EQ(sub->parent(), nullptr);
   EXPECT_EQ(w->names, (std::vector<std::string>{"config", "config"}));
}

// A trace that only the ring buffer keeps records its arguments and is formatted when the
// buffer is dumped: the dump shows exactly what formatting at once shows, whatever the
// arguments were, temporaries and traces made while they were evaluated included.
TEST(Trace, RingBufferDumpShowsWhatTheTraceWouldHaveSaid) {
   Sinked s;
   Mox::traceLevelIs("MoxTraceTest", 8);
   everyKind("Ethernet9");
   ASSERT_EQ(s.cap.records.size(), 2u);
   std::string said = s.cap.records[1].text;
   EXPECT_EQ(said,
             "p (1,-2) l Ethernet1 o [2] c green d 0.123457 b 1 ch x u8 A hex ff n 3 tmp "
             "Ethernet9! sv Ethernet9 m str f far5 after 6");
   Mox::traceLevelIs("MoxTraceTest", -1);

   Ringlog::open(8);
   {
      std::string name = "Ethernet9";
      everyKind(name);
      name = "overwritten";  // what the trace saw is in its record already
   }
   std::string dump = Ringlog::defaultBuf()->dump();
   EXPECT_NE(dump.find("| void {anonymous}::everyKind(const std::string&) | " + said + "\n"),
             std::string::npos)
       << dump;
   EXPECT_NE(dump.find("| int {anonymous}::nested() | inner 7\n"), std::string::npos) << dump;
   // The ring holds traces in the order they end: the one made while the other's
   // arguments were evaluated first.
   EXPECT_LT(dump.find("nested()"), dump.find("everyKind"));

   // With the sink on as well, the ring keeps the same text.
   Ringlog::defaultBuf()->clear();
   Mox::traceLevelIs("MoxTraceTest", 8);
   everyKind("Ethernet9");
   auto withoutTimes = [](std::string text) {
      std::string out;
      for (size_t at = 0; at < text.size();) {
         size_t eol = text.find('\n', at);
         out += text.substr(text.find(' ', at), eol + 1 - text.find(' ', at));
         at = eol + 1;
      }
      return out;
   };
   EXPECT_EQ(withoutTimes(Ringlog::defaultBuf()->dump()), withoutTimes(dump));
}
