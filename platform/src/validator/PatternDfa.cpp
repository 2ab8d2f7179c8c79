#include "PatternDfa.h"

#include <algorithm>
#include <bitset>
#include <cctype>
#include <cstring>
#include <map>
#include <regex>
#include <string>

namespace QenValidator {

namespace {

using ByteSet = std::bitset<256>;

// The subset's syntax tree. Repetition bounds are expanded into copies when
// the automaton is built.
struct Ast {
  enum Kind { kSet, kConcat, kAlt, kRepeat } kind;
  ByteSet set;                // kSet
  std::vector<Ast> children;  // kConcat, kAlt; kRepeat: one
  int min = 0, max = 0;       // kRepeat; max -1 = unbounded
};

constexpr int kMaxCount = 1000;    // largest {n,m} bound accepted
constexpr size_t kMaxNfa = 20000;  // NFA states before giving up

ByteSet Byte(unsigned char c) {
  ByteSet s;
  s.set(c);
  return s;
}

// "\d", "\s", "\w" as std::regex classifies them (locale-dependent for \s, \w).
ByteSet ClassSet(char name) {
  std::regex_traits<char> traits;
  const char lower = static_cast<char>(name | 0x20);
  const auto mask = traits.lookup_classname(&lower, &lower + 1);
  ByteSet s;
  for (int c = 0; c < 256; ++c) {
    if (traits.isctype(static_cast<char>(c), mask)) s.set(c);
  }
  return name == lower ? s : ~s;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

  // False when the text is outside the subset.
  bool Parse(Ast& out, bool& anchoredStart, bool& anchoredEnd) {
    anchoredStart = p_ < end_ && *p_ == '^';
    if (anchoredStart) ++p_;
    // A final unescaped "$": the backslashes before it must pair up.
    anchoredEnd = false;
    if (end_ > p_ && end_[-1] == '$') {
      size_t slashes = 0;
      while (end_ - 1 - static_cast<std::ptrdiff_t>(slashes) > p_ && end_[-2 - static_cast<std::ptrdiff_t>(slashes)] == '\\') ++slashes;
      if (slashes % 2 == 0) {
        anchoredEnd = true;
        --end_;
      }
    }
    bool topAlternatives = false;
    if (!Alternatives(out, 0, topAlternatives) || p_ != end_) return false;
    // "^a|b$" anchors single alternatives, which this automaton does not model.
    return !(topAlternatives && (anchoredStart || anchoredEnd));
  }

 private:
  bool Alternatives(Ast& out, int depth, bool& several) {
    out.kind = Ast::kAlt;
    out.children.emplace_back();
    if (!Sequence(out.children.back(), depth)) return false;
    while (p_ < end_ && *p_ == '|') {
      ++p_;
      several = true;
      out.children.emplace_back();
      if (!Sequence(out.children.back(), depth)) return false;
    }
    return true;
  }

  bool Sequence(Ast& out, int depth) {
    out.kind = Ast::kConcat;
    while (p_ < end_ && *p_ != '|' && *p_ != ')') {
      Ast atom;
      if (!Atom(atom, depth) || !Quantified(atom)) return false;
      out.children.push_back(std::move(atom));
    }
    return true;
  }

  bool Atom(Ast& out, int depth) {
    const char c = *p_++;
    out.kind = Ast::kSet;
    switch (c) {
      case '(': {
        if (depth >= 32) return false;
        if (end_ - p_ >= 2 && p_[0] == '?') {
          if (p_[1] != ':') return false;  // look-ahead
          p_ += 2;
        }
        bool ignored = false;
        if (!Alternatives(out, depth + 1, ignored)) return false;
        if (p_ == end_ || *p_ != ')') return false;
        ++p_;
        return true;
      }
      case '[':
        return Bracket(out.set);
      case '.':
        out.set = ~(Byte('\n') | Byte('\r'));
        return true;
      case '\\': {
        bool single = false;
        unsigned char byte = 0;
        return Escape(out.set, byte, single);
      }
      case '^': case '$': case '*': case '+': case '?': case '{': case '}': case ']': case ')': case '|':
        return false;
      default:
        // Control characters and NUL are special to the regex scanner.
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
        out.set = Byte(static_cast<unsigned char>(c));
        return true;
    }
  }

  // The escape after a backslash: a class ("\d", `single` false) or one
  // byte (`single` true, the byte in `byte`).
  bool Escape(ByteSet& out, unsigned char& byte, bool& single) {
    if (p_ == end_) return false;
    const char c = *p_++;
    single = true;
    switch (c) {
      case 'd': case 'D': case 's': case 'S': case 'w': case 'W':
        out = ClassSet(c);
        single = false;
        return true;
      case 'f': byte = '\f'; break;
      case 'n': byte = '\n'; break;
      case 'r': byte = '\r'; break;
      case 't': byte = '\t'; break;
      case 'v': byte = '\v'; break;
      default:
        // Identity escapes of ASCII punctuation only; letters and digits have
        // meanings outside the subset (\b, \1, \x41, \cA, \u0041) or none.
        if (static_cast<unsigned char>(c) < 0x21 || static_cast<unsigned char>(c) >= 0x7f ||
            std::isalnum(static_cast<unsigned char>(c))) {
          return false;
        }
        byte = static_cast<unsigned char>(c);
        break;
    }
    out = Byte(byte);
    return true;
  }

  // One bracket member: a byte (plain or escaped) or a class escape.
  // `single` is false for a class escape, which cannot bound a range.
  bool Member(ByteSet& out, unsigned char& byte, bool& single) {
    const char c = *p_++;
    if (c == '\\') return Escape(out, byte, single);
    // "[" opens POSIX classes; bytes beyond ASCII compare as signed chars.
    if (c == '[' || static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) return false;
    single = true;
    byte = static_cast<unsigned char>(c);
    out = Byte(byte);
    return true;
  }

  bool Bracket(ByteSet& out) {
    bool negate = p_ < end_ && *p_ == '^';
    if (negate) ++p_;
    out.reset();
    bool first = true;
    while (true) {
      if (p_ == end_) return false;
      if (*p_ == ']') {
        if (first) return false;  // "[]" and "[^]"
        ++p_;
        break;
      }
      // A "-" is literal only first or last; anywhere else it must make a range.
      if (*p_ == '-' && !first && !(p_ + 1 < end_ && p_[1] == ']')) return false;
      ByteSet item;
      unsigned char low = 0;
      bool single = false;
      if (!Member(item, low, single)) return false;
      if (single && p_ + 1 < end_ && *p_ == '-' && p_[1] != ']') {
        ++p_;
        ByteSet ignored;
        unsigned char high = 0;
        bool highSingle = false;
        if (!Member(ignored, high, highSingle) || !highSingle || high < low) return false;
        for (unsigned b = low; b <= high; ++b) item.set(b);
        if (p_ < end_ && *p_ == '-' && !(p_ + 1 < end_ && p_[1] == ']')) return false;
      }
      out |= item;
      first = false;
    }
    if (negate) out.flip();
    return true;
  }

  bool Number(int& out) {
    if (p_ == end_ || !std::isdigit(static_cast<unsigned char>(*p_))) return false;
    long value = 0;
    while (p_ < end_ && std::isdigit(static_cast<unsigned char>(*p_))) {
      value = value * 10 + (*p_++ - '0');
      if (value > kMaxCount) return false;
    }
    out = static_cast<int>(value);
    return true;
  }

  bool Quantified(Ast& atom) {
    if (p_ == end_) return true;
    int min = 0, max = 0;
    switch (*p_) {
      case '*': min = 0; max = -1; ++p_; break;
      case '+': min = 1; max = -1; ++p_; break;
      case '?': min = 0; max = 1; ++p_; break;
      case '{':
        ++p_;
        if (!Number(min)) return false;
        max = min;
        if (p_ < end_ && *p_ == ',') {
          ++p_;
          max = -1;
          if (p_ < end_ && *p_ != '}' && (!Number(max) || max < min)) return false;
        }
        if (p_ == end_ || *p_ != '}') return false;
        ++p_;
        break;
      default:
        return true;
    }
    if (p_ < end_ && *p_ == '?') ++p_;  // lazy: the same strings match
    // Stacked quantifiers ("a**") are outside the subset.
    if (p_ < end_ && std::strchr("*+?{", *p_) != nullptr) return false;
    Ast repeat;
    repeat.kind = Ast::kRepeat;
    repeat.min = min;
    repeat.max = max;
    repeat.children.push_back(std::move(atom));
    atom = std::move(repeat);
    return true;
  }

  const char* p_;
  const char* end_;
};

// Thompson construction: states with one byte-set edge or epsilon edges.
class Nfa {
 public:
  struct State {
    int set = -1;  // index into sets, or -1
    int next = -1;
    std::vector<int> epsilon;
  };

  bool Build(const Ast& ast, int& start, int& end) {
    if (ast.kind == Ast::kSet) {
      start = Add();
      end = Add();
      states[start].set = static_cast<int>(sets.size());
      states[start].next = end;
      sets.push_back(ast.set);
      return Fits();
    }
    if (ast.kind == Ast::kConcat) {
      start = end = Add();
      for (const Ast& part : ast.children) {
        int s, e;
        if (!Build(part, s, e)) return false;
        states[end].epsilon.push_back(s);
        end = e;
      }
      return Fits();
    }
    if (ast.kind == Ast::kAlt) {
      start = Add();
      end = Add();
      for (const Ast& option : ast.children) {
        int s, e;
        if (!Build(option, s, e)) return false;
        states[start].epsilon.push_back(s);
        states[e].epsilon.push_back(end);
      }
      return Fits();
    }
    // Repetition: min copies, then either a loop or (max - min) optional ones.
    const Ast& body = ast.children[0];
    start = end = Add();
    for (int i = 0; i < ast.min; ++i) {
      int s, e;
      if (!Build(body, s, e)) return false;
      states[end].epsilon.push_back(s);
      end = e;
    }
    if (ast.max < 0) {
      int s, e;
      if (!Build(body, s, e)) return false;
      const int exit = Add();
      states[end].epsilon.push_back(s);
      states[end].epsilon.push_back(exit);
      states[e].epsilon.push_back(end);
      end = exit;
    } else if (ast.max > ast.min) {
      const int exit = Add();
      for (int i = ast.min; i < ast.max; ++i) {
        int s, e;
        if (!Build(body, s, e)) return false;
        states[end].epsilon.push_back(s);
        states[end].epsilon.push_back(exit);
        end = e;
      }
      states[end].epsilon.push_back(exit);
      end = exit;
    }
    return Fits();
  }

  // Adds the epsilon closure of `state` to `out` (marked in `seen`).
  void Close(int state, std::vector<int>& out, std::vector<char>& seen) const {
    std::vector<int> stack{state};
    while (!stack.empty()) {
      const int s = stack.back();
      stack.pop_back();
      if (seen[s]) continue;
      seen[s] = 1;
      out.push_back(s);
      for (int t : states[s].epsilon) stack.push_back(t);
    }
  }

  std::vector<State> states;
  std::vector<ByteSet> sets;

 private:
  int Add() {
    states.emplace_back();
    return static_cast<int>(states.size()) - 1;
  }
  bool Fits() const { return states.size() <= kMaxNfa; }
};

}  // namespace

std::unique_ptr<PatternDfa> PatternDfa::Build(std::string_view pattern) {
  Ast ast;
  bool anchoredStart = false, anchoredEnd = false;
  if (!Parser(pattern).Parse(ast, anchoredStart, anchoredEnd)) return nullptr;
  Nfa nfa;
  int nfaStart, nfaAccept;
  if (!nfa.Build(ast, nfaStart, nfaAccept)) return nullptr;

  std::unique_ptr<PatternDfa> dfa(new PatternDfa());

  // Bytes that every set treats alike share a class. Repetitions copy their
  // sets, so only distinct ones are compared.
  std::vector<ByteSet> distinct;
  for (const ByteSet& set : nfa.sets) {
    if (std::find(distinct.begin(), distinct.end(), set) == distinct.end()) distinct.push_back(set);
  }
  std::map<std::vector<bool>, uint8_t> classIds;
  for (int b = 0; b < 256; ++b) {
    std::vector<bool> signature(distinct.size());
    for (size_t i = 0; i < distinct.size(); ++i) signature[i] = distinct[i].test(b);
    auto it = classIds.emplace(std::move(signature), static_cast<uint8_t>(classIds.size())).first;
    dfa->classOf_[b] = it->second;
  }
  dfa->classes_ = static_cast<unsigned>(classIds.size());
  std::vector<unsigned char> representative(dfa->classes_);
  for (int b = 255; b >= 0; --b) representative[dfa->classOf_[b]] = static_cast<unsigned char>(b);

  // Subset construction. An unanchored start may begin a match at every
  // byte, so its closure joins every state. State 0 is the empty set.
  std::vector<char> seen(nfa.states.size());
  std::vector<int> first;
  nfa.Close(nfaStart, first, seen);
  const std::vector<int> startClosure = first;
  // Sets come marked in `seen` (from Close); this adds the start closure
  // where it applies, clears the marks and sorts.
  auto normalise = [&](std::vector<int>& set) {
    if (!anchoredStart) {
      for (int s : startClosure) {
        if (!seen[s]) {
          seen[s] = 1;
          set.push_back(s);
        }
      }
    }
    for (int s : set) seen[s] = 0;
    std::sort(set.begin(), set.end());
  };
  std::map<std::vector<int>, unsigned> ids;
  std::vector<std::vector<int>> sets;
  auto intern = [&](std::vector<int> set) -> long {
    auto it = ids.find(set);
    if (it != ids.end()) return it->second;
    if (sets.size() >= kMaxStates) return -1;
    const unsigned id = static_cast<unsigned>(sets.size());
    ids.emplace(set, id);
    sets.push_back(std::move(set));
    return id;
  };
  intern({});
  normalise(first);
  dfa->start_ = static_cast<uint32_t>(intern(first)) * dfa->classes_;

  for (size_t id = 0; id < sets.size(); ++id) {
    const bool accepting = std::binary_search(sets[id].begin(), sets[id].end(), nfaAccept);
    dfa->accepting_.push_back(accepting);
    // Unanchored at the end, a match found is kept to the end.
    if (accepting && !anchoredEnd) {
      for (unsigned cls = 0; cls < dfa->classes_; ++cls) {
        dfa->next_.push_back(static_cast<uint32_t>(id) * dfa->classes_);
      }
      continue;
    }
    for (unsigned cls = 0; cls < dfa->classes_; ++cls) {
      std::vector<int> target;
      for (int s : sets[id]) {
        const Nfa::State& state = nfa.states[s];
        if (state.set >= 0 && nfa.sets[state.set].test(representative[cls])) {
          nfa.Close(state.next, target, seen);
        }
      }
      normalise(target);
      const long next = intern(std::move(target));
      if (next < 0) return nullptr;
      dfa->next_.push_back(static_cast<uint32_t>(next) * dfa->classes_);
    }
  }
  return dfa;
}

}  // namespace QenValidator
