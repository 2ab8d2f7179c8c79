// A deterministic byte automaton for the regular expressions schemas mostly
// use (anchored character classes, literals, groups, alternatives and
// repetitions). std::regex spends most of a short match allocating match
// state and dispatching through its NFA; this answers the same question with
// one table look-up per byte.
//
// Only a conservative subset of ECMAScript syntax is accepted; anything else
// (back-references, look-ahead, word boundaries, anchors inside the pattern,
// non-ASCII bytes in classes, ...) makes Build return null and the caller
// uses std::regex. Within the subset, Matches gives exactly std::regex_search's
// answer in ECMAScript mode: a match anywhere unless anchored by a leading "^"
// or a trailing "$", "." excluding "\n" and "\r", "\d", "\s", "\w" classified
// by std::regex_traits<char> under the global locale at Build time.
//
// Immutable once built: Matches may be called from any number of threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace QenValidator {

class PatternDfa {
 public:
  // Null when the pattern is outside the subset or its automaton would exceed
  // kMaxStates states.
  static std::unique_ptr<PatternDfa> Build(std::string_view pattern);

  bool Matches(std::string_view subject) const {
    const uint32_t* next = next_.data();
    uint32_t row = start_;
    for (unsigned char byte : subject) {
      row = next[row + classOf_[byte]];
      if (row == kDead) return false;
    }
    return accepting_[row / classes_] != 0;
  }

  static constexpr unsigned kMaxStates = 1024;

 private:
  PatternDfa() = default;

  static constexpr uint32_t kDead = 0;  // the row of the state no match continues from

  uint8_t classOf_[256] = {};  // byte -> equivalence class
  uint32_t classes_ = 0;
  uint32_t start_ = 0;  // a row: state * classes_
  // Row of a state + class of a byte -> row of the next state. Without a
  // final "$" an accepting state keeps accepting whatever follows.
  std::vector<uint32_t> next_;
  std::vector<uint8_t> accepting_;  // per state
};

}  // namespace QenValidator
