#pragma once

namespace QM {

struct MathFuncs {
  /// On equality the first argument.
  template <typename T>
  static constexpr T max(T a, T b) {
    return a < b ? b : a;
  }
  template <typename T>
  static constexpr T max(T a, T b, T c) {
    return max(max(a, b), c);
  }
};

}  // namespace QM
