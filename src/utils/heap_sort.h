/// @file heap_sort.h
/// A comparison sort that bears any comparison.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace ip_spoofing_app {

/// Sorts `items` so that `less(b, a)` is false for neighbours a, b wherever `less` is a strict weak order. Not stable.
///
/// `less` may be any relation, also one that contradicts itself: every index comes from the size alone, never from an
/// assumption that some element stops a scan, so the sort always ends, stays within the vector and keeps its elements.
/// `std::sort` promises none of that. At most about 2 n log2 n comparisons.
template <typename T, typename Less>
void HeapSort(std::vector<T>& items, Less less) {
  const auto sift_down = [&items, &less](std::size_t root, std::size_t end) {
    for (std::size_t child = 2 * root + 1; child < end; child = 2 * root + 1) {
      if (child + 1 < end && less(items[child], items[child + 1])) ++child;
      if (!less(items[root], items[child])) return;
      std::swap(items[root], items[child]);
      root = child;
    }
  };
  for (std::size_t root = items.size() / 2; root-- > 0;) sift_down(root, items.size());
  for (std::size_t end = items.size(); end > 1;) {
    --end;
    std::swap(items[0], items[end]);
    sift_down(0, end);
  }
}

}  // namespace ip_spoofing_app
