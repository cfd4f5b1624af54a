// SPDX-License-Identifier: Apache-2.0
// One valid call of every export on small data of its own, for the frame's tests to spoil.
#pragma once
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace lumbra::testing {

enum class Export { AllocMV, AllocIT, AllocSharpe, Returns, LogReturns, Cov, Corr, SDLS, SDLScorr,
  ExanteReturn, ExanteVolatility, ExanteNormalVaR, ExanteModifiedVaR, ExpostReturn,
  ExpostVolatility, GaussianKernel, Simulation, Count };
const char* exportName(Export e);

struct Vec : std::vector<double> {  // compares bit for bit, NaN equal to itself
  using std::vector<double>::vector;
  bool operator==(const Vec& o) const {
    return size() == o.size() && (empty() || std::memcmp(data(), o.data(), size() * 8) == 0);
  }
};

// The arguments of one export by their documented names: d["name"] an array, row-major
// (a scalar: an array of one; an empty array: a null pointer); d("name") a count.
struct CallData {
  explicit CallData(Export e);
  Vec& operator[](const std::string& name) { return real.at(name); }
  int& operator()(const std::string& name) { return counts.at(name); }
  bool operator==(const CallData&) const = default;
  Export e;
  std::map<std::string, Vec> real;
  std::map<std::string, int> counts;
  Vec out = Vec(64, -777.0);
  int status = 12345;
};

long resultCount(const CallData& d);  // doubles of the result (0 for a size <= 0)
int callExport(CallData& d);          // result in d.out, status in d.status

struct Outcome {  // what a call left: the result finite, all zero; the inputs kept
  int ret = 0, status = 0;
  bool finite = true, cleared = true, inputsKept = true;
};
Outcome runCase(CallData& d);

}  // namespace lumbra::testing
