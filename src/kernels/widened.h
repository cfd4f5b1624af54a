// SPDX-License-Identifier: Apache-2.0
// The tolerances and factors the library fixes as single-precision numbers
// and then uses in double precision.  Each float literal is written here
// once and widened exactly (a float converts to double without rounding),
// so 1e-8f stands for 9.99999993922529e-9, not for 1e-8.
#pragma once

namespace lumbra::widened {

inline constexpr double k1e15 = double(1e15f);    // 999999986991104
inline constexpr double k1em5 = double(1e-5f);    // 9.999999747378752e-6
inline constexpr double k1em8 = double(1e-8f);    // 9.99999993922529e-9
inline constexpr double k1em12 = double(1e-12f);  // 9.999999960041972e-13
inline constexpr double k1em15 = double(1e-15f);  // 1.0000000036274937e-15
inline constexpr double k1em30 = double(1e-30f);  // 1.0000000031710769e-30

// Cornish-Fisher fractions, each a single-precision quotient.
inline constexpr double kSixth = double(1.0f / 6.0f);          // 0.1666666716337204
inline constexpr double kTwentyFourth = double(1.0f / 24.0f);  // 0.0416666679084301
inline constexpr double kThirtySixth = double(1.0f / 36.0f);   // 0.02777777798473835

// Normal-reference bandwidth 1.059 sigma n^(-1/5) of the kernel density.
inline constexpr double kBandwidthFactor = double(1.059f);  // 1.059000015258789
inline constexpr float kBandwidthExponent = 0.2f;           // 0.20000000298023224

// Not a widened float but a limit used in more than one place: sqrt of the
// largest double, beyond which a product of two numbers overflows.
inline constexpr double kSqrtDoubleMax = 1.3407807929942596e154;

}  // namespace lumbra::widened
