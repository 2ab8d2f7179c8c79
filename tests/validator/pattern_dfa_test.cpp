// The byte automaton that replaces std::regex for the usual schema patterns
// must give std::regex_search's answer on every subject, and accept no
// pattern that std::regex refuses (the validator then skips compiling it).
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>

#include "platform/src/validator/PatternDfa.h"

using QenValidator::PatternDfa;

namespace {

bool RegexSearch(const std::string& pattern, const std::string& subject) {
  return std::regex_search(subject, std::regex(pattern, std::regex::ECMAScript));
}

// Subjects over `alphabet`: the shortest ones (about `shortCount`), then
// `randomCount` random ones up to `maxLength` bytes.
std::vector<std::string> Subjects(const std::string& alphabet, size_t shortCount, size_t maxLength,
                                  size_t randomCount, std::mt19937& rng) {
  std::vector<std::string> out{""};
  for (size_t i = 0; i < out.size() && out.size() < shortCount; ++i) {
    if (out[i].size() >= 3) continue;
    for (char c : alphabet) out.push_back(out[i] + c);
  }
  std::uniform_int_distribution<size_t> length(0, maxLength), pick(0, alphabet.size() - 1);
  for (size_t i = 0; i < randomCount; ++i) {
    std::string s(length(rng), ' ');
    for (char& c : s) c = alphabet[pick(rng)];
    out.push_back(s);
  }
  return out;
}

// Every byte the pattern names, the bytes regex classes treat specially, and
// a few outsiders.
std::string AlphabetOf(const std::string& pattern) {
  std::string alphabet = "aZ9_-. \n\r\t\x01\xc3\xa9";
  for (char c : pattern) {
    if (alphabet.find(c) == std::string::npos) alphabet += c;
  }
  return alphabet;
}

void ExpectSameAnswers(const std::string& pattern, const PatternDfa& dfa, std::mt19937& rng,
                       size_t shortCount = 2000, size_t randomCount = 3000, size_t maxLength = 24) {
  const std::regex regex(pattern, std::regex::ECMAScript);
  for (const std::string& subject : Subjects(AlphabetOf(pattern), shortCount, maxLength, randomCount, rng)) {
    ASSERT_EQ(dfa.Matches(subject), std::regex_search(subject, regex))
        << "pattern " << pattern << " subject \"" << subject << "\"";
  }
}

}  // namespace

TEST(PatternDfa, CommonSchemaPatternsAnswerAsTheRegexEngine) {
  std::mt19937 rng(7);
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"^[a-z][a-z0-9-]*$", {"eth0", "a-b-c"}},
      {"^[0-9]{1,3}(\\.[0-9]{1,3}){3}$", {"10.0.0.1", "255.255.255.255", "1.2.3"}},
      {"^[A-Za-z0-9_.-]+$", {"host_1.example-a"}},
      {"^[^/]+$", {"name", "a/b"}},
      {"^/([^/]+/)*[^/]*$", {"/etc/ntp.conf", "/", "etc"}},
      {"^(on|off|auto)$", {"on", "auto", "of"}},
      {"^\\d+(\\.\\d+)?$", {"12", "1.5", "1."}},
      {"^\\w+@\\w+\\.\\w{2,}$", {"a@b.cd"}},
      {"^\\s*$", {"", "  \t"}},
      {"^.{12,}$", {"123456789012", "short"}},
      {"^[^\\s]*$", {"no-spaces", "a b"}},
      {"^[a-f0-9]{2}(:[a-f0-9]{2}){5}$", {"00:1a:2b:3c:4d:5e"}},
      {"^(?:[a-z]+\\.)*[a-z]+$", {"www.example.org"}},
      {"^0x[0-9A-Fa-f]+$", {"0x1F"}},
      {"^-?[0-9]+$", {"-12", "+12"}},
      {"^[+-]?[0-9]*\\.?[0-9]+$", {"+.5", "3."}},
      {"^[\\]\\[\\\\^-]+$", {"[]\\^-"}},
      {"^[a-z-]+$", {"a-z"}},
      {"^[-a]*$", {"-a-"}},
      {"^a*?b+?c??$", {"aabbc", "c"}},
      {"^(a|ab)(c|bcd)(d*)$", {"abcd", "acd"}},
      {"^(|a)+$", {"", "aaa"}},
      {"^\\$[0-9]+\\$$", {"$12$"}},
      {"a\\\\$", {"xa\\"}},
      {"[0-9]", {"x1", "x"}},
      {"ab+c", {"xxabbbcyy", "ac"}},
      {"^abc", {"abcdef", "xabc"}},
      {"xyz$", {"wxyz", "xyzw"}},
      {"^$", {"", "a"}},
      {"$", {"", "anything"}},
      {"^", {"anything"}},
      {"", {"", "x"}},
      {"a|b|", {"", "c"}},
      {"(a|b)c|d", {"ac", "d", "e"}},
      {"[^a-c]{2}", {"ab", "xy"}},
      {"^\\.\\*\\+\\?\\(\\)\\{\\}\\|\\/$", {".*+?(){}|/"}},
      {"^[\\d\\s]+$", {"1 2\n3"}},
      {"^[\\W]+$", {"!!", "a"}},
      {"^\\D\\S\\W$", {"a!!", "1 a"}},
      {"^.$", {"\n", "\r", "\xc3", "a"}},
      {"^caf\xc3\xa9$", {"caf\xc3\xa9"}},
      {"^[a-z]{0,3}$", {"", "abc", "abcd"}},
      {"^(ab){2,3}$", {"abab", "ababab", "ab"}},
      {"^(a{2}){2,}$", {"aaaa", "aaaaaa", "aaaaa"}},
      {"^[\\t\\n\\r\\f\\v]$", {"\t", "\v"}},
  };
  for (const auto& [pattern, examples] : cases) {
    std::unique_ptr<PatternDfa> dfa = PatternDfa::Build(pattern);
    ASSERT_NE(dfa, nullptr) << pattern;
    for (const std::string& example : examples) {
      EXPECT_EQ(dfa->Matches(example), RegexSearch(pattern, example)) << pattern << " on " << example;
    }
    ExpectSameAnswers(pattern, *dfa, rng);
  }
}

TEST(PatternDfa, LongSubjectsNeedNoStack) {
  std::unique_ptr<PatternDfa> dfa = PatternDfa::Build("^(a|b)+$");
  ASSERT_NE(dfa, nullptr);
  std::string subject(1 << 20, 'a');
  EXPECT_TRUE(dfa->Matches(subject));
  subject += '!';
  EXPECT_FALSE(dfa->Matches(subject));
}

TEST(PatternDfa, PatternsOutsideTheSubsetAreLeftToTheRegexEngine) {
  for (const char* pattern :
       {"^(a)\\1$", "^(?=a)a$", "^(?!a).$", "\\bword\\b", "\\Bx", "a^b", "a$b", "^a|b$", "^a|b", "a|b$",
        "[[:alpha:]]+", "[\xc3\xa9]", "a**", "a{2}{3}", "a{,3}", "a{3,2}", "a{1001}", "\\x41", "\\u0041",
        "\\cA", "\\0", "[]a]", "[^]", "[a-\\d]", "[\\d-z]", "[b-a]", "[a-c-e]", "(", ")", "a)", "[a", "*a",
        "+", "?", "{1}", "}", "]", "a\x01", "\\q", "\\", "(?<n>a)", "((((((((((((((((((((((((((((((((((a))))))))))))))))))))))))))))))))))"}) {
    EXPECT_EQ(PatternDfa::Build(pattern), nullptr) << pattern;
  }
  // Too many states: the automaton would need a state per counted position
  // of each of the unanchored alternatives.
  EXPECT_EQ(PatternDfa::Build("[ab]*a[ab]{12}"), nullptr);
}

// Random patterns over the subset's syntax and beyond: whatever the automaton
// accepts, std::regex must compile and match identically.
TEST(PatternDfa, RandomPatternsAcceptedOnlyWhenTheRegexEngineAgrees) {
  std::mt19937 rng(20261123);
  const std::vector<std::string> tokens = {"a", "b", "c", "-", ".", "\\.", "\\d", "\\w", "\\s", "\\W", "[ab]",
                                           "[^a]", "[a-c]", "[-b]", "[b-]", "[\\]a]", "[.-a]", "[--a]", "(",
                                           ")", "(?:", "|", "*", "+", "?", "*?", "{2}", "{1,2}", "{0,}", "^",
                                           "$", "\\", "[", "]", "{", "}", "\\b", "\\1", "\\n", "x"};
  std::uniform_int_distribution<size_t> pickToken(0, tokens.size() - 1), length(1, 8);
  int accepted = 0;
  for (int round = 0; round < 4000; ++round) {
    std::string pattern;
    for (size_t n = length(rng); n > 0; --n) pattern += tokens[pickToken(rng)];
    std::unique_ptr<PatternDfa> dfa = PatternDfa::Build(pattern);
    if (!dfa) continue;
    ++accepted;
    try {
      std::regex compiled(pattern, std::regex::ECMAScript);
    } catch (const std::regex_error& e) {
      ADD_FAILURE() << "accepted " << pattern << ", which std::regex refuses: " << e.what();
      continue;
    }
    ExpectSameAnswers(pattern, *dfa, rng, 300, 200, 10);
  }
  // The generator must exercise the automaton, not only its refusals.
  EXPECT_GT(accepted, 500);
}
