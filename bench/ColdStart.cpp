// The mount side at data-centre scale, in CPU seconds. Each run builds a world of `switches`
// simulated switches, each holding `paths` remote paths, and `services` services that mount every
// path from every switch (one wildcard group each), then measures:
//  - the cold start to every group's initialMountsComplete, with the initial-mount machine and a
//    heartbeat, in both orders: the machines first and the switches connecting after them, and
//    the switches connected first, as the host starts;
//  - in the warm world of the switches-first start: one more switch connecting, one switch
//    disconnecting, one more service of 100 new paths;
//  - the teardown of the whole world, every machine cleaning up what it wrote;
//  - the heap the cold start took per mounted (switch, path), and its allocations.
// Every step checks its outcome (every row mounted, every group complete, the switch's statuses
// gone, the heap back where it was) and the program fails if one does not hold.
//
// Usage: cold_start [switches] [paths] [services] [--runs N] [--fit]
//   --runs N  repeats everything N times (default 1), each time in a fresh process, and reports
//             the minimum and the median;
//   --fit     also times the machines-first cold start at a quarter and a half of `switches` and
//             fits the growth exponent in switches: a figure that does not move with the
//             machine's speed.

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "MountInterface.h"
#include "host/Wiring.h"
#include "kiv/Pool.h"

namespace {

std::size_t allocations = 0;

double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

// What the objects hold: the general allocator's blocks, small and mapped, with the framework's
// pool counted by what it has handed out rather than by the chunks it keeps.
std::size_t heapInUse() {
  struct mallinfo2 const m = mallinfo2();
  Kiv::PoolBytes const pool = Kiv::poolBytes();
  return m.uordblks + m.hblkhd - pool.chunks + pool.inUse;
}

std::string hexAddress(int i) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "02:00:00:%02x:%02x:%02x", (i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff);
  return buf;
}

std::string serviceName(int v) { return "svc" + std::to_string(v); }

bool failed = false;

void check(bool ok, char const* what) {
  if (ok) return;
  std::fprintf(stderr, "cold_start: check failed: %s\n", what);
  failed = true;
}

struct Size {
  int switches;
  int paths;
  int services;
};

constexpr int kAddedPaths = 100;
constexpr std::size_t kLeftOver = 1 << 20;
// Virtual time for a switch's handshake, its attribute log and a mount to settle.
constexpr Kiv::Seconds kSettle = 10;

// The world: `switches` switches that connect in the cold start and one more that stays down
// until the warm connect. The service added warm is negotiated only just before it is declared, so
// that the cold start meets exactly the services it mounts.
struct World : Host::Wiring {
  World(Size size, bool switchesFirst)
      : Wiring({.retries = 2,
                .timeout = 5.0,
                .establish = switchesFirst,
                .heartbeat = 2.0}),
        size_(size),
        switchesFirst_(switchesFirst) {
    for (int s = 0; s <= size.switches; ++s) {
      Sim::Switch& sw = net->switchIs(hexAddress(s + 1));
      for (int p = 0; p < size.paths; ++p) sw.entityIs("data/path" + std::to_string(p));
      for (int p = 0; p < kAddedPaths; ++p) sw.entityIs("data/added" + std::to_string(p));
      for (int v = 0; v < size.services; ++v) sw.serviceVersionIs(Kiv::Name(serviceName(v)), 1);
    }
    for (int v = 0; v < size.services; ++v) declare(serviceName(v), "path", size.paths);
  }

  void declare(std::string const& name, std::string const& stem, int paths) {
    auto config = mountConfig->entryIs<Controller::ServiceMountConfig>(name);
    config->leaderGenIdIs("gen1");
    config->serviceNameIs(name);
    mountStatus->entryIs<Controller::ServiceMountStatus>(name);
    auto group = config->mountGroupConfigIs("all");
    for (int p = 0; p < paths; ++p) group->mountConfigIs("/data/" + stem + std::to_string(p), "Sim::Record", "r", "");
  }

  Kiv::Ptr<Controller::ServiceMountStatus> status(int v) const {
    return Kiv::entityCast<Controller::ServiceMountStatus>(mountStatus->entityPtr(serviceName(v)));
  }

  bool complete() const {
    for (int v = 0; v < size_.services; ++v)
      if (!status(v)->initialMountsComplete("all")) return false;
    return true;
  }

  // Timed: up to every group's initialMountsComplete.
  void coldStart() {
    if (switchesFirst_) {
      connectAll();
      Wiring::start();
    } else {
      Wiring::start();
      net->establish();
      connectAll();
    }
    loop.runUntil([this] { return complete(); }, 3600);
  }

  void connectAll() {
    for (int s = 0; s < size_.switches; ++s) net->switchIs(hexAddress(s + 1)).connect();
  }

  // The group's rows on the switch, when every one is mounted; -1 otherwise.
  int mountedRows(int v, std::string const& address) const {
    auto system = status(v)->systemStatus(Kiv::Name(address));
    auto group = system ? system->serviceMountGroupStatus("all") : nullptr;
    if (!group || group->mountState() != Controller::mountStateMounted) return -1;
    for (auto it = group->mountStatusIter(); it; ++it)
      if (it.value()->mountState() != Controller::mountStateMounted) return -1;
    return static_cast<int>(group->mountStatusSize());
  }

  bool everyRowMounted(int services, int switches, int paths) const {
    for (int v = 0; v < services; ++v)
      for (int s = 0; s < switches; ++s)
        if (mountedRows(v, hexAddress(s + 1)) != paths) return false;
    return true;
  }

  Size size_;
  bool switchesFirst_;
};

double timed(std::function<void()> const& f) {
  double const start = cpuSeconds();
  f();
  return cpuSeconds() - start;
}

// A function of its own so that a profiler can count the teardown alone
// (valgrind --tool=callgrind --toggle-collect=tearDown).
[[gnu::noinline]] void tearDown(std::unique_ptr<World>& world) { world.reset(); }

struct Figures {
  double machinesFirst = 0;
  double switchesFirst = 0;
  double connect = 0;
  double disconnect = 0;
  double addService = 0;
  double teardown = 0;
  double bytesPerPair = 0;
  double allocationsPerPair = 0;
};

double coldStartOnly(Size size) {
  auto world = std::make_unique<World>(size, false);
  double const cpu = timed([&] { world->coldStart(); });
  check(world->complete(), "every group complete after the cold start");
  tearDown(world);
  return cpu;
}

Figures run(Size size) {
  Figures f;
  double const pairs = static_cast<double>(size.switches) * size.paths;
  {
    auto world = std::make_unique<World>(size, false);
    f.machinesFirst = timed([&] { world->coldStart(); });
    check(world->complete(), "every group complete (machines first)");
    check(world->everyRowMounted(size.services, size.switches, size.paths), "every row mounted (machines first)");
    tearDown(world);
  }

  std::size_t const heapBefore = heapInUse();
  auto world = std::make_unique<World>(size, true);
  std::size_t const heapBuilt = heapInUse();
  std::size_t const allocationsBuilt = allocations;
  f.switchesFirst = timed([&] { world->coldStart(); });
  f.bytesPerPair = static_cast<double>(heapInUse() - heapBuilt) / pairs;
  f.allocationsPerPair = static_cast<double>(allocations - allocationsBuilt) / pairs;
  check(world->complete(), "every group complete (switches first)");
  check(world->everyRowMounted(size.services, size.switches, size.paths), "every row mounted (switches first)");

  std::string const late = hexAddress(size.switches + 1);
  f.connect = timed([&] {
    world->net->switchIs(late).connect();
    world->loop.advanceBy(kSettle);
  });
  for (int v = 0; v < size.services; ++v) check(world->mountedRows(v, late) == size.paths, "the late switch mounted");

  std::string const first = hexAddress(1);
  f.disconnect = timed([&] {
    world->net->switchIs(first).disconnect();
    world->loop.advanceBy(kSettle);
  });
  for (int v = 0; v < size.services; ++v)
    check(!world->status(v)->systemStatus(Kiv::Name(first)), "the disconnected switch's statuses withdrawn");

  // Untimed: the switches negotiate the service first, as they would long before it mounts.
  for (int s = 1; s < size.switches + 1; ++s)
    world->net->switchIs(hexAddress(s + 1)).serviceVersionIs(Kiv::Name(serviceName(size.services)), 1);
  world->loop.advanceBy(kSettle);
  f.addService = timed([&] {
    world->declare(serviceName(size.services), "added", kAddedPaths);
    world->loop.advanceBy(kSettle);
  });
  for (int s = 1; s < size.switches + 1; ++s)
    check(world->mountedRows(size.services, hexAddress(s + 1)) == kAddedPaths, "the added service mounted");

  f.teardown = timed([&] { tearDown(world); });
  // Process-wide state made on first use and containers' spare capacity may stay (tens of KB);
  // a leak of even a few bytes per pair at the target size may not.
  std::size_t const left = heapInUse() - std::min(heapInUse(), heapBefore);
  if (left > kLeftOver) std::fprintf(stderr, "cold_start: %zu bytes left after the teardown\n", left);
  check(left <= kLeftOver, "the heap back where it was after the teardown");
  return f;
}

// Runs f in a child process and hands back what it returned: every run starts from a fresh heap,
// not from the free lists a torn-down world of millions of objects leaves scattered behind.
template <class T>
T isolated(std::function<T()> const& f) {
  int fds[2];
  if (pipe(fds) != 0) {
    std::perror("cold_start: pipe");
    std::exit(2);
  }
  std::fflush(stdout);
  pid_t const child = fork();
  if (child == 0) {
    close(fds[0]);
    T const result = f();
    bool const ok = write(fds[1], &result, sizeof result) == static_cast<ssize_t>(sizeof result) && !failed;
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(ok ? 0 : 1);
  }
  close(fds[1]);
  T result{};
  bool const read_ = child > 0 && read(fds[0], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
  close(fds[0]);
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  if (!read_ || !WIFEXITED(status) || WEXITSTATUS(status) != 0) failed = true;
  return result;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void report(char const* what, std::vector<Figures> const& runs, double Figures::*field, double scale,
            char const* unit) {
  std::vector<double> values;
  for (Figures const& f : runs) values.push_back(f.*field * scale);
  std::printf("  %-34s %10.3f %10.3f  %s\n", what, *std::min_element(values.begin(), values.end()), median(values),
              unit);
}

}  // namespace

// Counts every allocation of the process; the bytes come from the allocator's own count. Kept out
// of line, so that the compiler never sees a free() of what a new-expression made.
[[gnu::noinline]] void* operator new(std::size_t n) {
  ++allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

int main(int argc, char** argv) {
  std::vector<int> numbers;
  int runs = 1;
  bool fit = false;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--runs") && i + 1 < argc) {
      runs = std::atoi(argv[++i]);
    } else if (!std::strcmp(argv[i], "--fit")) {
      fit = true;
    } else {
      numbers.push_back(std::atoi(argv[i]));
    }
  }
  Size const size{numbers.size() > 0 ? numbers[0] : 100, numbers.size() > 1 ? numbers[1] : 100,
                  numbers.size() > 2 ? numbers[2] : 3};
  if (size.switches < 2 || size.paths < 1 || size.services < 1 || runs < 1 || numbers.size() > 3) {
    std::fprintf(stderr, "usage: cold_start [switches >= 2] [paths >= 1] [services >= 1] [--runs N] [--fit]\n");
    return 2;
  }

  std::printf("%d switches x %d remote paths x %d services (wildcard), %d run%s\n", size.switches, size.paths,
              size.services, runs, runs == 1 ? "" : "s");
  std::vector<Figures> figures;
  for (int r = 0; r < runs; ++r) {
    figures.push_back(isolated<Figures>([&] { return run(size); }));
    std::fflush(stdout);
  }
  std::printf("  %-34s %10s %10s\n", "", "min", "median");
  report("cold start, machines first", figures, &Figures::machinesFirst, 1, "s CPU");
  report("cold start, switches first", figures, &Figures::switchesFirst, 1, "s CPU");
  report("one switch connecting", figures, &Figures::connect, 1e3, "ms CPU");
  report("one switch disconnecting", figures, &Figures::disconnect, 1e3, "ms CPU");
  report("adding a service of 100 paths", figures, &Figures::addService, 1e3, "ms CPU");
  report("teardown", figures, &Figures::teardown, 1, "s CPU");
  report("heap per mounted (switch, path)", figures, &Figures::bytesPerPair, 1, "bytes");
  report("allocations per mounted pair", figures, &Figures::allocationsPerPair, 1, "");

  if (fit) {
    // Least squares of log(time) over log(switches) at 1/4, 1/2 and the full size.
    std::vector<double> xs;
    std::vector<double> ys;
    for (int divisor : {4, 2, 1}) {
      Size const s{size.switches / divisor, size.paths, size.services};
      std::vector<double> times;
      for (int r = 0; r < runs; ++r) times.push_back(isolated<double>([&] { return coldStartOnly(s); }));
      double const t = *std::min_element(times.begin(), times.end());
      std::printf("  cold start at %5d switches %10.3f s CPU (min)\n", s.switches, t);
      xs.push_back(std::log(s.switches));
      ys.push_back(std::log(t));
    }
    double const mx = (xs[0] + xs[1] + xs[2]) / 3;
    double const my = (ys[0] + ys[1] + ys[2]) / 3;
    double num = 0;
    double den = 0;
    for (std::size_t i = 0; i < xs.size(); ++i) {
      num += (xs[i] - mx) * (ys[i] - my);
      den += (xs[i] - mx) * (xs[i] - mx);
    }
    std::printf("  growth exponent in switches %.3f\n", num / den);
  }
  return failed ? 1 : 0;
}
