// SPDX-License-Identifier: Apache-2.0
// The library's random source: a combined multiplicative congruential
// generator of uniforms with one process-wide state, reseeded from the
// clock before every normal variate, and the cosine branch of Box-Muller.
//
// Internal header: the simulator uses the first group; the second group
// splits the deterministic parts from the clock so the tests can reach them.
#pragma once
#include <cstdint>

namespace lumbra::simul {

// Moduli of the two congruential components and the state before any call
// (the largest value of each component's range).
inline constexpr std::int32_t kModulus1 = 2147483563;
inline constexpr std::int32_t kModulus2 = 2147483399;
inline constexpr std::int32_t kSeed1Initial = 2147483562;
inline constexpr std::int32_t kSeed2Initial = 2147483398;

// ---- the source as the simulator uses it ------------------------------------

// One uniform in (0, 1) from the shared state, updated under the state lock.
double simulUniform();
// seed(0:1) := (s1, s2), read until the copy matches the state.
void simulSeedGet(std::int32_t* seed);
// (s1, s2) := the reductions of seed(0:1) taken as unsigned, written until
// the state matches them.
void simulSeedPut(const std::int32_t* seed);
// Multiplies the state by (ms - 500), ms the millisecond of the clock.
void simulReseed();
// mean + sd * (one standard normal variate), reseeding first.
double simulGaussian(const double& mean, const double& sd);
// z(i) := simulGaussian(mean, sd) for i = 0..n-1 in order; nothing for n < 1.
void simulGaussianVector(const int& n, const double& mean, const double& sd, double* z);

// ---- deterministic parts ----------------------------------------------------

// Advances the state (s1, s2) by one step and returns the uniform it gives.
double simulUniformStep(std::int32_t& s1, std::int32_t& s2);
// (s1, s2) := the state that seeds (a, b) stand for: both reduced into the
// ranges 1..kModulus1-1 and 1..kModulus2-1, 0 meaning the initial value.
void simulSeedReduce(const std::uint32_t& a, const std::uint32_t& b, std::int32_t& s1,
                     std::int32_t& s2);
// The reseed of simulReseed with the clock reading ms given.
void simulReseedAt(const int& ms);
// Millisecond (0..999) of the current local time of day.
int simulClockMillis();
// mean + sd * (one standard normal variate) from the state as it stands.
double simulGaussianDraw(const double& mean, const double& sd);

}  // namespace lumbra::simul
