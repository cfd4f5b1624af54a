// SPDX-License-Identifier: Apache-2.0
// Index helpers shared by the whole engine.  Matrices are column-major;
// all loops run over 0-based indices and reach memory through these two
// helpers only.
#pragma once
#include <cstdint>

namespace lumbra {

using i64 = std::int64_t;

// Position of element (i, j), 0-based, of a column-major matrix with
// leading dimension ld.
constexpr i64 at(i64 i, i64 j, i64 ld) { return i + j * ld; }

// Position of element (i, j), 0-based with i <= j, of a packed symmetric
// matrix holding its upper triangle column after column.
constexpr i64 packAt(i64 i, i64 j) { return i + j * (j + 1) / 2; }

}  // namespace lumbra
