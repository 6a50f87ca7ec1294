// Collects the trace lines of some facilities at level 8 while alive.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "mox/Trace.h"

namespace VeldTest {

class TraceCapture : public Mox::TraceSink {
public:
   TraceCapture(std::initializer_list<char const*> facilities) : facilities_(facilities) {
      previous_ = Mox::traceSinkIs(this);
      for (auto const* f : facilities_)
         Mox::traceLevelIs(f, 8);
   }
   ~TraceCapture() override {
      for (auto const* f : facilities_)
         Mox::traceLevelIs(f, -1);
      Mox::traceSinkIs(previous_);
   }
   void write(Mox::TraceRecord const& r) override { lines.push_back(r.text); }
   size_t count(std::string const& text) const {
      return std::count_if(lines.begin(), lines.end(),
                           [&](std::string const& l) { return l.find(text) != std::string::npos; });
   }
   bool contains(std::string const& text) const { return count(text) > 0; }

   std::vector<std::string> lines;

private:
   std::vector<char const*> facilities_;
   Mox::TraceSink* previous_;
};

}  // namespace VeldTest
