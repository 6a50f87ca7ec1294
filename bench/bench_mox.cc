// The framework's hot paths against plain C++ doing the same work.
#include <benchmark/benchmark.h>

#include <unordered_map>
#include <vector>

#include "BenchMain.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Trace.h"

namespace {

class Port : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Port> {
   public:
      virtual void onSpeed() {}
   };
   uint32_t speed() const { return speed_; }
   void speedIs(uint32_t v) { setAttr(speed_, v, &NotifieeConst::onSpeed); }

private:
   uint32_t speed_ = 0;
};

// The handler both paths end in, out of line so that both really call it. A machine's
// nested reactor knows its machine's type and calls the handler directly; the baseline calls
// it through a virtual call on a pointer the compiler cannot see through.
class Handler {
public:
   virtual ~Handler() = default;
   virtual void handleSpeed(uint32_t speed) = 0;
   uint64_t sum_ = 0;
};

class Machine final : public Handler {
public:
   __attribute__((noinline)) void handleSpeed(uint32_t speed) override { sum_ += speed; }
};

// Another handler type, so that the compiler cannot tell which one a Handler* is.
class OtherMachine final : public Handler {
public:
   __attribute__((noinline)) void handleSpeed(uint32_t speed) override { sum_ -= speed; }
};

__attribute__((noinline)) Handler* opaque(Handler* h) {
   benchmark::DoNotOptimize(h);
   return h;
}

class MoxPort : public Port::NotifieeConst {
public:
   explicit MoxPort(Machine* h) : h_(h) {}
   void onSpeed() override { h_->handleSpeed(notifierRaw()->speed()); }
   Machine* h_;
};

// (a) One attribute change through a registered reactor, against calling the handler.
void Delivery_ours(benchmark::State& state) {
   auto port = Mox::make<Port>();
   Machine h;
   auto r = Mox::make<MoxPort>(&h);
   r->notifierIs(port);
   uint32_t v = 0;
   for (auto _ : state)
      port->speedIs(++v);
   benchmark::DoNotOptimize(h.sum_);
}
BENCHMARK(Delivery_ours)->Name("delivery/ours");

volatile bool useMachine = true;

void Delivery_baseline(benchmark::State& state) {
   Machine real;
   OtherMachine other;
   Handler* h = opaque(useMachine ? static_cast<Handler*>(&real) : &other);
   uint32_t v = 0;
   for (auto _ : state)
      h->handleSpeed(++v);
   benchmark::DoNotOptimize(real.sum_);
}
BENCHMARK(Delivery_baseline)->Name("delivery/baseline");

// (b) Keyed collection with 100,000 keys against std::unordered_map.
constexpr uint32_t kKeys = 100000;

using Ours = Mox::HashMap<uint32_t, uint32_t>;
using Std = std::unordered_map<uint32_t, uint32_t>;
uint32_t const* find(Ours& m, uint32_t k) { return m.find(k); }
uint32_t const* find(Std& m, uint32_t k) { return &m.find(k)->second; }

std::vector<uint32_t> keys() {
   std::vector<uint32_t> k(kKeys);
   for (uint32_t i = 0; i < kKeys; ++i)
      k[i] = i * 2654435761u;
   return k;
}

template <class M>
void insertAll(M& m, std::vector<uint32_t> const& ks) {
   for (auto k : ks)
      m.emplace(k, k);
}

template <class M>
void Insert(benchmark::State& state) {
   auto ks = keys();
   for (auto _ : state) {
      M m;
      insertAll(m, ks);
      benchmark::DoNotOptimize(m);
   }
   state.SetItemsProcessed(state.iterations() * kKeys);
}

template <class M>
void Lookup(benchmark::State& state) {
   auto ks = keys();
   M m;
   insertAll(m, ks);
   for (auto _ : state) {
      uint64_t s = 0;
      for (auto k : ks)
         s += *find(m, k);
      benchmark::DoNotOptimize(s);
   }
   state.SetItemsProcessed(state.iterations() * kKeys);
}

template <class M>
void Erase(benchmark::State& state) {
   auto ks = keys();
   for (auto _ : state) {
      state.PauseTiming();
      M m;
      insertAll(m, ks);
      state.ResumeTiming();
      for (auto k : ks)
         m.erase(k);
      benchmark::DoNotOptimize(m);
   }
   state.SetItemsProcessed(state.iterations() * kKeys);
}

template <class M>
void Iterate(benchmark::State& state) {
   auto ks = keys();
   M m;
   insertAll(m, ks);
   for (auto _ : state) {
      uint64_t s = 0;
      for (auto const& kv : m)
         s += kv.second;
      benchmark::DoNotOptimize(s);
   }
   state.SetItemsProcessed(state.iterations() * kKeys);
}

BENCHMARK(Insert<Ours>)->Name("collection_insert/ours");
BENCHMARK(Insert<Std>)->Name("collection_insert/baseline");
BENCHMARK(Lookup<Ours>)->Name("collection_lookup/ours");
BENCHMARK(Lookup<Std>)->Name("collection_lookup/baseline");
BENCHMARK(Erase<Ours>)->Name("collection_erase/ours");
BENCHMARK(Erase<Std>)->Name("collection_erase/baseline");
BENCHMARK(Iterate<Ours>)->Name("collection_iterate/ours");
BENCHMARK(Iterate<Std>)->Name("collection_iterate/baseline");

// (c) Ptr copies, plain and atomic counting. The baseline is the plain one.
void PtrCopy(benchmark::State& state, bool threadSafe) {
   Mox::VFPtrInterface::threadSafePointers_ = threadSafe;
   auto port = Mox::make<Port>();
   for (auto _ : state) {
      Mox::Ptr<Port> copy = port;
      benchmark::DoNotOptimize(copy);
   }
   Mox::VFPtrInterface::threadSafePointers_ = false;
}
BENCHMARK_CAPTURE(PtrCopy, plain, false)->Name("ptr_copy_threadsafe/baseline");
BENCHMARK_CAPTURE(PtrCopy, atomic, true)->Name("ptr_copy_threadsafe/ours");

// (d) A call site with a disabled trace against the same code without one.
Mox::TraceHandle benchTrace("BenchTrace");

// A handler-sized body: look the key up, count it.
Mox::HashMap<uint64_t, uint64_t> counts;

__attribute__((noinline)) uint64_t work(uint64_t x) {
   MOX_TRACE_FN(benchTrace, " x " << x);
   auto* c = counts.find(x & 1023);
   return c ? ++*c + x : x + 1;
}
__attribute__((noinline)) uint64_t workNoTrace(uint64_t x) {
   auto* c = counts.find(x & 1023);
   return c ? ++*c + x : x + 1;
}

void fillCounts() {
   for (uint64_t k = 0; k < 1024; ++k)
      counts.emplace(k, 0);
}

void Trace_ours(benchmark::State& state) {
   fillCounts();
   uint64_t x = 1;
   for (auto _ : state)
      x = work(x);
   benchmark::DoNotOptimize(x);
}
BENCHMARK(Trace_ours)->Name("disabled_trace/ours");

void Trace_baseline(benchmark::State& state) {
   fillCounts();
   uint64_t x = 1;
   for (auto _ : state)
      x = workNoTrace(x);
   benchmark::DoNotOptimize(x);
}
BENCHMARK(Trace_baseline)->Name("disabled_trace/baseline");

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
