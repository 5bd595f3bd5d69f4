/// @file merge_sort.h
/// A comparison sort that accepts any comparison.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace ip_spoofing_app {

/// Sorts `items` by a bottom-up merge: afterwards `less(b, a)` is false for all neighbours a, b if `less` is a strict
/// weak order. Stable. At most n * ceil(log2 n) comparisons; room for a second copy of `items`.
///
/// `less` may be any relation, even one that contradicts itself, as the order of the status list does: every index is
/// computed from the size alone, so the sort always ends, stays within the vector and keeps each element.
/// `std::sort` promises none of this. Under such a relation the result depends on the algorithm. A merge only ever
/// compares the heads of two runs, so a row that fits nowhere displaces few others; a heap sort mixed the whole list
/// (17 to 89 % of ordinary lists came out disordered, with the merge none).
template <typename T, typename Less>
void merge_sort(std::vector<T>& items, Less less) {
  const std::size_t size = items.size();
  std::vector<T> merged(size);
  for (std::size_t width = 1; width < size; width *= 2) {
    for (std::size_t left = 0; left < size; left += 2 * width) {
      const std::size_t middle = std::min(left + width, size);
      const std::size_t end = std::min(left + 2 * width, size);
      std::size_t a = left;
      std::size_t b = middle;
      for (std::size_t out = left; out < end; ++out) {
        const bool take_right = b < end && (a == middle || less(items[b], items[a]));
        merged[out] = std::move(items[take_right ? b++ : a++]);
      }
    }
    items.swap(merged);
  }
}

}  // namespace ip_spoofing_app
