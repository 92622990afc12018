// Framework hot paths against the plain C++ a programmer would write instead. A summary of the
// ratios that matter follows the table.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <ostream>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unistd.h>
#include <vector>

#include "MountInterface.h"
#include "kiv/Clock.h"
#include "kiv/Dir.h"
#include "kiv/HashMap.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"
#include "kiv/Trace.h"

// --- attribute set + notify ---

// The hand-written observer has external linkage: inside an anonymous namespace GCC sees the
// whole class tree, turns the virtual call into an inlined increment, and the baseline would
// measure less work than the framework does.
namespace handwritten {

struct Observer {
  virtual ~Observer() = default;
  virtual void onFlag() = 0;
};

struct CountingObserver : Observer {
  void onFlag() override { ++count; }
  long count = 0;
};

struct PlainSubject {
  // Out of line, as the generated setter is (it lives in another translation unit).
  [[gnu::noinline]] void flagIs(bool v) {
    if (flag == v) return;
    flag = v;
    for (Observer* o : observers) o->onFlag();
  }
  bool flag = false;
  std::vector<Observer*> observers;
};

}  // namespace handwritten

namespace {

struct CountingReactor : Controller::ServiceMountGroupConfig::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onPreserveMountsOnDisconnect() override { ++count; }
  long count = 0;
};

void BM_SetNotify_Generated(benchmark::State& state) {
  auto root = Kiv::Dir::DirIs("r");
  auto group = root->entryIs<Controller::ServiceMountConfig>("svc")->mountGroupConfigIs("g");
  std::vector<Kiv::Ptr<CountingReactor>> reactors;
  for (int i = 0; i < state.range(0); ++i) reactors.emplace_back(new CountingReactor(group));
  bool v = false;
  for (auto _ : state) {
    v = !v;  // every set is a real change
    group->preserveMountsOnDisconnectIs(v);
  }
  for (auto const& r : reactors) benchmark::DoNotOptimize(r->count);
}

void BM_SetNotify_HandWritten(benchmark::State& state) {
  handwritten::PlainSubject subject;
  std::vector<handwritten::CountingObserver> observers(state.range(0));
  for (auto& o : observers) subject.observers.push_back(&o);
  bool v = false;
  for (auto _ : state) {
    v = !v;
    subject.flagIs(v);
  }
  for (auto const& o : observers) benchmark::DoNotOptimize(o.count);
}

BENCHMARK(BM_SetNotify_Generated)->ArgName("notifiees")->Arg(0)->Arg(1)->Arg(4);
BENCHMARK(BM_SetNotify_HandWritten)->ArgName("notifiees")->Arg(0)->Arg(1)->Arg(4);

// --- keyed collections ---

constexpr int kKeys = 1000;

std::vector<Kiv::Name> const& keys(char const* prefix) {
  static std::map<std::string, std::vector<Kiv::Name>> cache;
  auto& v = cache[prefix];
  if (v.empty())
    for (int i = 0; i < kKeys; ++i) v.emplace_back(std::string(prefix) + std::to_string(i));
  return v;
}

using KivMap = Kiv::HashMap<Kiv::Name, int>;
using StdMap = std::unordered_map<Kiv::Name, int>;

// The two spellings of the same operations, so the benchmark bodies are shared.
void put(KivMap& m, Kiv::Name const& k, int v) { m.insert(k, v); }
void put(StdMap& m, Kiv::Name const& k, int v) { m.emplace(k, v); }
bool has(KivMap const& m, Kiv::Name const& k) { return m.find(k) != nullptr; }
bool has(StdMap const& m, Kiv::Name const& k) { return m.find(k) != m.end(); }

template <class M>
void BM_InsertErase(benchmark::State& state) {
  // A populated map, so probes and buckets look like a real collection's.
  M m;
  for (int i = 0; i < kKeys; ++i) put(m, keys("system-")[i], i);
  auto const& extra = keys("extra-");
  int i = 0;
  for (auto _ : state) {
    put(m, extra[i], i);
    m.erase(extra[i]);
    if (++i == kKeys) i = 0;
  }
  benchmark::DoNotOptimize(m.size());
}

template <class M>
void BM_Lookup(benchmark::State& state) {
  M m;
  auto const& k = keys("system-");
  for (int i = 0; i < kKeys; ++i) put(m, k[i], i);
  int i = 0;
  for (auto _ : state) {
    bool found = has(m, k[i]);
    benchmark::DoNotOptimize(found);
    if (++i == kKeys) i = 0;
  }
}

BENCHMARK(BM_InsertErase<KivMap>)->Name("BM_InsertErase_KivHashMap");
BENCHMARK(BM_InsertErase<StdMap>)->Name("BM_InsertErase_StdUnorderedMap");
BENCHMARK(BM_Lookup<KivMap>)->Name("BM_Lookup_KivHashMap");
BENCHMARK(BM_Lookup<StdMap>)->Name("BM_Lookup_StdUnorderedMap");

// The same through a generated value collection, checks and notification included (no reactors).
void BM_InsertErase_GeneratedCollection(benchmark::State& state) {
  auto filter = Controller::MountFilterSystem::MountFilterSystemIs("f");
  for (auto const& k : keys("system-")) filter->includedSystemIs(k, true);
  auto const& extra = keys("extra-");
  int i = 0;
  for (auto _ : state) {
    filter->includedSystemIs(extra[i], true);
    filter->includedSystemDel(extra[i]);
    if (++i == kKeys) i = 0;
  }
  benchmark::DoNotOptimize(filter->includedSystemSize());
}
BENCHMARK(BM_InsertErase_GeneratedCollection);

// --- reference counting ---

struct Counted : Kiv::PtrInterface {};

void BM_PtrCopy(benchmark::State& state) {
  bool const saved = Kiv::VFPtrInterface::enableThreadSafePointers;
  Kiv::VFPtrInterface::enableThreadSafePointers = state.range(0) != 0;
  Kiv::Ptr<Counted> p(new Counted);
  for (auto _ : state) {
    Kiv::Ptr<Counted> copy(p);
    benchmark::DoNotOptimize(copy);
  }
  Kiv::VFPtrInterface::enableThreadSafePointers = saved;
}
BENCHMARK(BM_PtrCopy)->ArgName("threadSafe")->Arg(0)->Arg(1);

// --- tracing ---

Kiv::TraceHandle benchTrace("KivBench");

void BM_TraceDisabled(benchmark::State& state) {
  benchTrace.levelsIs(0);  // whatever KIV_TRACE says
  Kiv::String const what = "system-7";
  int n = 0;
  for (auto _ : state) {
    KIV_TRACE(benchTrace, 7, __FILE__, __LINE__, __func__, "mount " << what << " count " << n);
    ++n;
    benchmark::DoNotOptimize(n);
    // Forces the level to be reloaded every iteration, as it is at any real trace site.
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TraceDisabled);

// The loop of BM_TraceDisabled without the trace statement.
void BM_TraceBaseline(benchmark::State& state) {
  int n = 0;
  for (auto _ : state) {
    ++n;
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TraceBaseline);

// A small value type a machine logs, such as a switch's address.
struct Addr {
  unsigned char bytes[6];
};
std::ostream& operator<<(std::ostream& os, Addr const& a) {
  return os << int(a.bytes[0]) << ':' << int(a.bytes[5]);
}

// The common case: the level is off and only the ring keeps the message.
void BM_DuallogDisabled(benchmark::State& state) {
  benchTrace.levelsIs(0);
  Kiv::String const what = "system-7";
  Addr const addr{{0, 0x1c, 0x73, 0x0a, 0, 1}};
  int n = 0;
  for (auto _ : state) {
    KIV_DUALLOG(benchTrace, 5, __FILE__, __LINE__, "Bench::step", " mount:%s count:%s from:%s", what, n, addr);
    ++n;
  }
  benchmark::DoNotOptimize(Kiv::Ringlog::defaultHandle().written());
}
BENCHMARK(BM_DuallogDisabled);

// --- timers ---

struct BenchTimer : Kiv::Clock::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onTime() override { timeMinIs(Kiv::System::currentTime() + (*next)()); }
  std::function<double()>* next = nullptr;
};

// Each iteration fires the earliest of `pending` timers (which re-arms itself further out) and
// moves another one, as reactors do when they reschedule.
void BM_TimerRearmFire(benchmark::State& state) {
  Kiv::EventLoop loop;
  std::uint64_t x = 88172645463325252ull;
  std::function<double()> next = [&x] {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    return 1.0 + double(x % 1000000) / 1000.0;
  };
  std::vector<Kiv::Ptr<BenchTimer>> timers;
  for (long i = 0; i < state.range(0); ++i) {
    timers.emplace_back(new BenchTimer(loop.clock()));
    timers.back()->next = &next;
    timers.back()->timeMinIs(next());
  }
  std::size_t i = 0;
  for (auto _ : state) {
    loop.advanceTo(loop.nextTimerTime());
    timers[i]->timeMinIs(loop.now() + next());
    if (++i == timers.size()) i = 0;
  }
  benchmark::DoNotOptimize(loop.pendingTimerCount());
}
BENCHMARK(BM_TimerRearmFire)->ArgName("pending")->Arg(100000);

// --- summary ---

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  SummaryReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& r : runs) {
      // With --benchmark_repetitions the median, reported after the repetitions, wins.
      bool use = r.run_type == Run::RT_Iteration || r.aggregate_name == "median";
      if (use && !r.error_occurred)
        ns_[r.run_name.str()] = r.GetAdjustedCPUTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                                benchmark::GetTimeUnitMultiplier(r.time_unit);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void summary() const {
    // CPU time: on a shared machine wall time also counts the other processes' turns.
    std::printf("\nGoals (per-iteration CPU time):\n");
    for (char const* n : {"0", "1", "4"}) {
      std::string suffix = std::string("/notifiees:") + n;
      ratio("set+notify " + suffix.substr(1) + ", generated / hand-written", "BM_SetNotify_Generated" + suffix,
            "BM_SetNotify_HandWritten" + suffix, 2.0);
    }
    ratio("insert+erase, Kiv::HashMap / std::unordered_map", "BM_InsertErase_KivHashMap",
          "BM_InsertErase_StdUnorderedMap", 1.5);
    ratio("lookup, Kiv::HashMap / std::unordered_map", "BM_Lookup_KivHashMap", "BM_Lookup_StdUnorderedMap", 1.5);
    // Judged on the whole iteration, loop included: an upper bound for the statement itself.
    auto t = ns_.find("BM_TraceDisabled"), b = ns_.find("BM_TraceBaseline");
    if (t != ns_.end() && b != ns_.end())
      std::printf("  %-52s %6.2f ns (empty loop %.2f ns; goal < 1 ns) %s\n", "disabled trace statement", t->second,
                  b->second, t->second < 1.0 ? "ok" : "MISSED");
  }

 private:
  void ratio(std::string const& what, std::string const& a, std::string const& b, double goal) const {
    auto x = ns_.find(a), y = ns_.find(b);
    if (x == ns_.end() || y == ns_.end() || y->second <= 0) return;  // filtered out
    double r = x->second / y->second;
    std::printf("  %-52s %6.2fx (goal < %.1fx) %s\n", what.c_str(), r, goal, r < goal ? "ok" : "MISSED");
  }

  std::map<std::string, double> ns_;
};

}  // namespace

// --smoke: every benchmark briefly, a few seconds in all. --benchmark_format=... prints the plain
// library output without the summary.
int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  std::string const smoke = "--benchmark_min_time=0.05";
  bool plain = false;
  for (char*& a : args) {
    if (std::string_view(a) == "--smoke") a = const_cast<char*>(smoke.c_str());
    plain = plain || std::string_view(a).starts_with("--benchmark_format");
  }
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;
  if (plain) {
    benchmark::RunSpecifiedBenchmarks();
  } else {
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.summary();
  }
  benchmark::Shutdown();
  return 0;
}
