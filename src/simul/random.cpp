// SPDX-License-Identifier: Apache-2.0
// The random source: combined congruential uniforms (two Schrage-factored
// multiplicative generators whose difference is taken modulo the first
// modulus), a clock-driven reseed before every normal variate, and the
// cosine branch of Box-Muller.
//
// Concurrency.  The state (s1, s2) is the one piece of mutable memory the
// library keeps between calls, and every simulating thread meets here.
//  - The update in simulUniform runs under a spin lock taken by an atomic
//    exchange, so two threads never advance from the same state.
//  - simulSeedGet and simulSeedPut do not take the lock.  Each writes its two
//    integers, compares source and target, and repeats until they match, so
//    neither hands out or leaves behind a pair torn by a concurrent writer.
//    A reseed (get, multiply, put) is therefore not atomic as a whole and a
//    concurrent uniform may be lost in it; the values are random either way.
//  - s1 and s2 are std::atomic because they are read and written both under
//    the lock and outside it; relaxed order is enough for them, since no
//    other memory is published through the state, and the lock's acquire and
//    release order the updates made under it.
#include "simul/random.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include "kernels/index.h"

namespace lumbra::simul {
namespace {

// Schrage factors of the two components: m = a q + r with r < q, so a s mod m
// can be formed as a (s mod q) - r (s / q), plus m when negative, with every
// intermediate inside 32 bits for a state in range.
constexpr std::int32_t kMult1 = 40014;
constexpr std::int32_t kQuot1 = 53668;
constexpr std::int32_t kRem1 = 12211;
constexpr std::int32_t kMult2 = 40692;
constexpr std::int32_t kQuot2 = 52774;
constexpr std::int32_t kRem2 = 3791;
// The combination z = s1 - s2 is brought into 1..kModulus1-1 by adding this.
constexpr std::int32_t kCombineShift = 2147483562;
// 1 / kModulus1 as the generator scales it: z times this lies in (0, 1).
constexpr double kUniformScale = 4.65661305739176e-10;

// Seeds that stand above a component's range are folded back into it.  With
// the seed a as an unsigned 32-bit number, a - (m - 1) is taken first; when
// even that lies above the range, a + fold, wrapping around 2^32, instead.
constexpr std::uint32_t kFold1 = 172;
constexpr std::uint32_t kFold2 = 500;
// The clock's millisecond is centred on this value before it multiplies the
// state; at ms = 500 both seeds become 0, that is the initial state.
constexpr int kClockCentre = 500;
constexpr std::int64_t kMillisPerSecond = 1000;

// Box-Muller: 2 pi to ten digits, and the smallest u1 taken (the double
// nearest 1e-15), which keeps the logarithm finite.
constexpr double kTwoPi = 6.283185307;
constexpr double kSmallestU1 = 1e-15;

// The shared state and its lock.
std::atomic<std::int32_t> gSeed1{kSeed1Initial};
std::atomic<std::int32_t> gSeed2{kSeed2Initial};
std::atomic<int> gStateLock{0};

// Takes the state lock: spins on the exchange, and between attempts reads the
// lock only, yielding, so a waiting thread does not keep the line busy.
void lockState() {
  while (gStateLock.exchange(1, std::memory_order_acquire) != 0)
    while (gStateLock.load(std::memory_order_relaxed) != 0) std::this_thread::yield();
}

// Releases the state lock.
void unlockState() { gStateLock.store(0, std::memory_order_release); }

}  // namespace

// s1 := 40014 (s1 mod 53668) - 12211 (s1 / 53668) (mod m1),
// s2 := 40692 (s2 mod 52774) - 3791 (s2 / 52774) (mod m2),
// z := s1 - s2 in 1..m1-1; returns z / m1 as the generator scales it.
// The products are formed in 64 bits: for every state in range the values
// are those of 32-bit arithmetic, and no state can overflow.
double simulUniformStep(std::int32_t& s1, std::int32_t& s2) {
  std::int64_t a = std::int64_t{kMult1} * (s1 % kQuot1) - std::int64_t{kRem1} * (s1 / kQuot1);
  if (a < 0) a += kModulus1;
  std::int64_t b = std::int64_t{kMult2} * (s2 % kQuot2) - std::int64_t{kRem2} * (s2 / kQuot2);
  if (b < 0) b += kModulus2;
  s1 = static_cast<std::int32_t>(a);
  s2 = static_cast<std::int32_t>(b);
  std::int64_t z = a - b;
  if (z < 1) z += kCombineShift;
  return static_cast<double>(z) * kUniformScale;
}

// One step of the shared state under the lock.
double simulUniform() {
  lockState();
  std::int32_t s1 = gSeed1.load(std::memory_order_relaxed);
  std::int32_t s2 = gSeed2.load(std::memory_order_relaxed);
  const double u = simulUniformStep(s1, s2);
  gSeed1.store(s1, std::memory_order_relaxed);
  gSeed2.store(s2, std::memory_order_relaxed);
  unlockState();
  return u;
}

// s1 := a reduced: 0 -> m1-1; 1..m1-1 stays; when a - (m1-1) >= m1 the seed
// is folded by a + 172 (wrapping past 2^32), otherwise by a - (m1-1).
// s2 := b reduced likewise with m2, the fold + 500 taken when b - (m2-1) > m2-1.
void simulSeedReduce(const std::uint32_t& a, const std::uint32_t& b, std::int32_t& s1,
                     std::int32_t& s2) {
  const std::uint32_t top1 = kSeed1Initial;
  const std::uint32_t top2 = kSeed2Initial;
  const std::uint32_t m1 = kModulus1;
  const std::uint32_t m2 = kModulus2;
  std::uint32_t r1 = 0;
  if (a == 0) r1 = top1;
  else if (a < m1) r1 = a;
  else if (a - top1 >= m1) r1 = a + kFold1;
  else r1 = a - top1;
  std::uint32_t r2 = 0;
  if (b == 0) r2 = top2;
  else if (b < m2) r2 = b;
  else if (b - top2 > top2) r2 = b + kFold2;
  else r2 = b - top2;
  s1 = static_cast<std::int32_t>(r1);
  s2 = static_cast<std::int32_t>(r2);
}

// seed(0:1) := (s1, s2), repeated until the copy equals the state.
void simulSeedGet(std::int32_t* seed) {
  do {
    seed[0] = gSeed1.load(std::memory_order_relaxed);
    seed[1] = gSeed2.load(std::memory_order_relaxed);
  } while (seed[0] != gSeed1.load(std::memory_order_relaxed) ||
           seed[1] != gSeed2.load(std::memory_order_relaxed));
}

// (s1, s2) := reduced seed(0:1), repeated until the state equals them.
void simulSeedPut(const std::int32_t* seed) {
  std::int32_t s1 = 0;
  std::int32_t s2 = 0;
  simulSeedReduce(static_cast<std::uint32_t>(seed[0]), static_cast<std::uint32_t>(seed[1]), s1,
                  s2);
  do {
    gSeed1.store(s1, std::memory_order_relaxed);
    gSeed2.store(s2, std::memory_order_relaxed);
  } while (gSeed1.load(std::memory_order_relaxed) != s1 ||
           gSeed2.load(std::memory_order_relaxed) != s2);
}

// (s1, s2) := reduced ((ms - 500) s1, (ms - 500) s2), products wrapping in
// 32 bits.  A negative factor turns the product into a large unsigned number,
// which the reduction folds back.
void simulReseedAt(const int& ms) {
  std::int32_t seed[2];
  simulSeedGet(seed);
  const std::uint32_t factor = static_cast<std::uint32_t>(ms - kClockCentre);
  for (std::int32_t& s : seed)
    s = static_cast<std::int32_t>(static_cast<std::uint32_t>(s) * factor);
  simulSeedPut(seed);
}

// Millisecond of the local time of day.  Every time-zone offset is a whole
// number of minutes, so local time and UTC share their millisecond within the
// second: the system clock's count since the epoch gives it directly, with
// no time-zone lookup, at the cost of one clock read (a vDSO call on Linux).
int simulClockMillis() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
  const std::int64_t r = ms % kMillisPerSecond;
  return static_cast<int>(r < 0 ? r + kMillisPerSecond : r);
}

// The state multiplied by the centred millisecond of the clock.
void simulReseed() { simulReseedAt(simulClockMillis()); }

// mean + (sqrt(-(ln u1 + ln u1)) sd) cos(6.283185307 u2), u1 drawn again
// while below 1e-15; only the cosine variate of the pair is used.
double simulGaussianDraw(const double& mean, const double& sd) {
  double u1 = simulUniform();
  while (u1 < kSmallestU1) u1 = simulUniform();
  const double u2 = simulUniform();
  const double logU1 = std::log(u1);
  return mean + (std::sqrt(0.0 - (logU1 + logU1)) * sd) * std::cos(kTwoPi * u2);
}

// One variate on a state freshly multiplied by the clock.
double simulGaussian(const double& mean, const double& sd) {
  simulReseed();
  return simulGaussianDraw(mean, sd);
}

// z(i) := simulGaussian(mean, sd), i = 0..n-1 in order.
void simulGaussianVector(const int& n, const double& mean, const double& sd, double* z) {
  for (i64 i = 0; i < n; ++i) z[i] = simulGaussian(mean, sd);
}

}  // namespace lumbra::simul
