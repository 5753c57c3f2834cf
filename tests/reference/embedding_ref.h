// Plain CPU reference of the embedding gather over a sparse table: only the
// rows a test fills exist on the host side.
#pragma once
#include <cstdint>
#include <map>
#include <vector>

namespace ref::embedding {

// Row r of the result is the table row named by ids[r], copied bit for bit.
inline std::vector<uint16_t> gather(const std::vector<int64_t>& ids,
                                    const std::map<int64_t, std::vector<uint16_t>>& rows, int64_t hidden) {
  std::vector<uint16_t> out;
  out.reserve(ids.size() * (size_t)hidden);
  for (int64_t id : ids) {
    const auto& row = rows.at(id);
    out.insert(out.end(), row.begin(), row.begin() + hidden);
  }
  return out;
}

}  // namespace ref::embedding
