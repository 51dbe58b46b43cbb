#include "quillon/graph/predicate.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace quillon {
namespace {

Value object(const char* className, Value properties) {
  return Value::object(std::make_shared<GenericObject>(className, std::move(properties)));
}

bool matches(std::string_view format, const Value& object, std::vector<Value> arguments = {}) {
  Error error;
  auto predicate = Predicate::parse(format, arguments, &error);
  EXPECT_TRUE(predicate) << format << ": " << error.localizedDescription();
  return predicate && predicate->evaluate(object);
}

// Every format in `yes` matches the object, none in `no` does.
void expectMatches(const Value& object, std::initializer_list<const char*> yes,
                   std::initializer_list<const char*> no) {
  for (const char* format : yes) EXPECT_TRUE(matches(format, object)) << format;
  for (const char* format : no) EXPECT_FALSE(matches(format, object)) << format;
}

// The position named by a parse error, or -1 when the text parsed.
int errorPosition(std::string_view format, std::vector<Value> arguments = {}) {
  Error error;
  if (Predicate::parse(format, arguments, &error)) return -1;
  EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(error.code(), 2048);
  std::string text = error.localizedDescription();
  size_t at = text.find("position ");
  EXPECT_NE(at, std::string::npos) << text;
  return at == std::string::npos ? -2 : std::stoi(text.substr(at + 9));
}

class PredicateTest : public ::testing::Test {
 protected:
  Value work = object("Tag", Value::dictionary({{"name", "Work"}, {"weight", 3}}));
  Value home = object("Tag", Value::dictionary({{"name", "home"}, {"weight", 1}}));
  Value note = object("Note", Value::dictionary({
                                  {"title", "Café Crème"},
                                  {"priority", 4},
                                  {"ratio", 0.25},
                                  {"done", false},
                                  {"created", Value::date(1000)},
                                  {"empty", Value::null()},
                                  {"folder", Value::dictionary({{"name", "Inbox"}, {"depth", 2}})},
                                  {"tags", Value::set({work, home})},
                                  {"scores", Value::array({1, 5, 9})},
                                  {"words", Value::array({"alpha", "beta"})},
                              }));
};

TEST_F(PredicateTest, ComparisonOperatorsInEverySpelling) {
  expectMatches(note,
                {"priority = 4", "priority == 4.0", "priority <> 3", "priority < 5",
                 "priority <= 4", "priority > 3.5", "priority >= 4", "ratio == 0.25", "ratio < 1",
                 "done == NO", "done == FALSE", "done = 0", "priority BETWEEN {4, 10}",
                 "ratio BETWEEN {0, 0.3}", "priority == 0x4", "priority > -1", "priority < 1e1",
                 "title == \"Café Crème\"", "title < 'D'"},
                {"priority != 4", "priority =< 3", "priority => 5", "done == YES",
                 "priority BETWEEN {1, 3}", "title > 'd'"});
}

TEST_F(PredicateTest, StringOperatorsWithCaseAndDiacriticOptions) {
  expectMatches(note,
                {"title BEGINSWITH 'Caf'",
                 "title BEGINSWITH[c] 'CAFÉ'",
                 "title BEGINSWITH[cd] 'CAFE'",
                 "title ENDSWITH 'rème'",
                 "title ENDSWITH[d] 'reme'",
                 "title ENDSWITH[c] 'CRÈME'",
                 "title CONTAINS 'é C'",
                 "title CONTAINS[cd] 'E CR'",
                 "title ==[cd] 'cafe creme'",
                 "title LIKE 'Caf? *'",
                 "title LIKE[c] 'caf*'",
                 "title LIKE[cd] '*CREME'",
                 "title LIKE '*'",
                 "title MATCHES 'Caf. Cr.me'",
                 "title MATCHES[c] 'CAF.*'",
                 "title MATCHES[cd] 'cafe cr[e]me'",
                 "title IN 'Un Café Crème noir'",
                 "'Crème' IN title",
                 "title <[c] 'CAFÉ D'",
                 "title MATCHES '\\\\S+ \\\\S+'"},
                {"title BEGINSWITH 'caf'", "title BEGINSWITH[c] 'CAFE'", "title CONTAINS 'e c'",
                 "title !=[c] 'CAFÉ CRÈME'", "title LIKE 'caf*'", "title LIKE 'Café'",
                 "title MATCHES 'Caf'", "title MATCHES '(unclosed'", "title < 'CAFÉ D'"});
  // Decomposed accents fold too: "e" + U+0301.
  Value decomposed = Value::dictionary({{"t", "Cafe\xCC\x81"}});
  EXPECT_TRUE(matches("t ==[d] 'Cafe'", decomposed));
  EXPECT_FALSE(matches("t == 'Cafe'", decomposed));
  EXPECT_TRUE(matches("t ==[cd] 'CAFÉ'", decomposed));

  // LIKE wildcards are literal when escaped.
  Value v = Value::dictionary({{"s", "a*b?"}});
  EXPECT_TRUE(matches(R"(s LIKE 'a\\*b\\?')", v));
  EXPECT_FALSE(matches(R"(s LIKE 'a\\*c*')", v));
  EXPECT_FALSE(matches(R"(s LIKE 'ax\\*b?')", v));
  Value long_ = Value::dictionary({{"s", std::string(5000, 'a') + "b"}});
  EXPECT_FALSE(matches("s LIKE '*a*a*a*a*c'", long_));
  EXPECT_TRUE(matches("s LIKE '*a*a*a*a*b'", long_));
}

TEST_F(PredicateTest, MatchesRejectsHugeSubjectsInsteadOfCrashing) {
  Value v = Value::dictionary({{"s", std::string(200000, 'a')}});
  EXPECT_FALSE(matches("s MATCHES '(a|b)*'", v));
  // Subjects within the work bound for the pattern's size are matched
  // normally; past it the answer is no match.
  Value longest = Value::dictionary({{"s", std::string(1000, 'a')}});
  EXPECT_TRUE(matches("s MATCHES '(a|b)*'", longest));
  EXPECT_FALSE(matches("s MATCHES '(a|b)*c'", longest));
  EXPECT_TRUE(matches("s MATCHES 'a*'", Value::dictionary({{"s", std::string(2000, 'a')}})));
  EXPECT_TRUE(matches("s MATCHES '(((a)))*'", longest));
  EXPECT_FALSE(matches("s MATCHES '(((a)))*'", Value::dictionary({{"s", std::string(50000, 'a')}})));
  EXPECT_FALSE(matches("s MATCHES %@", v, {Value(std::string(100000, '('))}));
  // A counted repetition multiplies the automaton; nested ones past the
  // bound never match, however short the subject.
  Value shortText = Value::dictionary({{"s", "aaa"}});
  EXPECT_TRUE(matches("s MATCHES 'a{1,5}'", shortText));
  EXPECT_FALSE(matches("s MATCHES '((a{0,100}){0,100}){0,100}'", shortText));
  // Numbers too long for the regex compiler to read.
  EXPECT_FALSE(matches("s MATCHES 'a{1,77777777777777777777}'", shortText));
  EXPECT_FALSE(matches("s MATCHES '(a)\\\\77777777777777777777'", shortText));
  EXPECT_TRUE(matches("s MATCHES '[0-9]*a+'", shortText));
}

TEST_F(PredicateTest, MatchesTakesPolynomialTimeOnBacktrackingPatterns) {
  // A backtracking matcher takes 2^n steps on these; they must answer at
  // once, and correctly.
  Value as = Value::dictionary({{"s", std::string(40, 'a')}});
  EXPECT_FALSE(matches("s MATCHES '(a|a)*b'", as));
  EXPECT_FALSE(matches("s MATCHES '(a*)*b'", as));
  EXPECT_FALSE(matches("s MATCHES '(a|aa)*c'", as));
  EXPECT_TRUE(matches("s MATCHES '(a|aa)*'", as));
  EXPECT_TRUE(matches("s MATCHES '(?=(a*)*).*a'", as));
  EXPECT_FALSE(matches("s MATCHES '(?=(a*)*b).*'", as));
  // Back-references need the backtracking matcher: such a pattern never
  // matches.
  EXPECT_FALSE(matches("s MATCHES '(a)\\\\1*'", as));
}

TEST_F(PredicateTest, CollectionsAndMembership) {
  expectMatches(
      note,
      {"priority IN {1, 4, 7}", "'home' IN tags.name", "tags.name CONTAINS 'Work'",
       "tags.name CONTAINS[c] 'WORK'", "words CONTAINS 'beta'", "ANY tags.name == 'home'",
       "SOME tags.weight > 2", "ALL tags.weight > 0", "NONE tags.weight > 5",
       "ANY scores BETWEEN {6, 9}", "ALL missing == 1", "tags.@count == 2", "scores.@sum == 15",
       "scores.@avg == 5", "scores.@min == 1 AND scores.@max == 9", "tags.@sum.weight == 4",
       "tags.@max.name == 'home'", "ANY words IN {'beta', 'gamma'}", "{1, 2} CONTAINS 2"},
      {"priority IN {1, 2}", "words CONTAINS 'gamma'", "ALL tags.weight > 1", "NONE scores == 5",
       "ANY scores BETWEEN {6, 8}", "ANY missing == 1"});
}

TEST_F(PredicateTest, CompoundsPrecedenceAndKeywords) {
  EXPECT_TRUE(matches("priority == 1 OR priority == 4 AND done == NO", note));
  EXPECT_FALSE(matches("(priority == 1 OR priority == 4) AND done == YES", note));
  EXPECT_TRUE(matches("NOT priority == 1 && !(done == YES) || FALSEPREDICATE", note));
  EXPECT_TRUE(matches("TRUEPREDICATE", note));
  EXPECT_FALSE(matches("falsepredicate", note));
  EXPECT_TRUE(matches("priority == 4 and title beginswith[c] 'c' or done == yes", note));
  EXPECT_TRUE(matches("NOT NOT priority == 4", note));
  // Reserved words escaped with '#' are keys.
  Value odd = Value::dictionary({{"in", 1}, {"size", Value::dictionary({{"not", 2}})}});
  EXPECT_TRUE(matches("#in == 1 AND #size.not == 2", odd));
  EXPECT_EQ(errorPosition("in == 1"), 0);
}

TEST_F(PredicateTest, NilNullSelfNestedAndBadKeyPaths) {
  EXPECT_TRUE(matches("missing == nil", note));
  EXPECT_TRUE(matches("empty == NULL", note));
  EXPECT_TRUE(matches("title != nil", note));
  EXPECT_FALSE(matches("missing != nil", note));
  EXPECT_TRUE(matches("folder.name == 'Inbox' AND folder.depth > 1", note));
  EXPECT_TRUE(matches("SELF.folder.name == 'Inbox'", note));
  EXPECT_TRUE(matches("SELF == 3", Value(3)));
  EXPECT_TRUE(matches("SELF IN {'a', 'b'}", Value("b")));
  EXPECT_TRUE(
      matches("created < %@ AND created > CAST(999, \"NSDate\")", note, {Value::date(2000)}));

  // Bad key paths and incompatible kinds answer false.
  for (const char* format :
       {"title.nothing.deeper == 'x'", "priority.length > 0", "title < 5", "priority > 'a'",
        "created > 5", "title BEGINSWITH 3", "priority CONTAINS 4", "priority MATCHES '4'",
        "missing < 1", "missing > 1", "priority BETWEEN {'a', 'z'}", "priority IN 4",
        "scores.@unknown == 1", "folder LIKE '*'"}) {
    EXPECT_FALSE(matches(format, note)) << format;
  }
  EXPECT_TRUE(matches("title != 5", note));
  EXPECT_FALSE(matches("title == 1", Value(42)));
  EXPECT_FALSE(matches("x == 1", Value::array({1, 2})));
}

TEST_F(PredicateTest, LiteralsEscapesAndFormatArguments) {
  Value v = Value::dictionary({{"s", "say \"hi\"\n\tit's 100%"}, {"n", -12}, {"f", 1.5e-3}});
  EXPECT_TRUE(matches(R"(s == "say \"hi\"\n\tit's 100%%")", v));
  EXPECT_TRUE(matches(R"(s == 'say "hi"\n\tit\'s 100%')", v));
  EXPECT_TRUE(matches(R"(s BEGINSWITH "\u0073ay")", v));
  EXPECT_TRUE(matches("n == -12 AND n == -0xC AND f == 0.0015 AND f < 1.6E-3", v));
  EXPECT_FALSE(matches("n IN {}", v));
  EXPECT_TRUE(matches("n == -0b1100 AND n == -0o14", v));

  // Format arguments.
  EXPECT_TRUE(matches("%K == %@", note, {Value("title"), Value("Café Crème")}));
  EXPECT_TRUE(matches("%K == %@", note, {Value("folder.name"), Value("Inbox")}));
  EXPECT_TRUE(matches("priority == %d AND priority == %i AND priority == %ld", note,
                      {Value(4), Value(4.0), Value(4)}));
  EXPECT_TRUE(matches("ratio == %f", note, {Value(0.25)}));
  EXPECT_TRUE(matches("priority IN %@", note, {Value::array({3, 4})}));
  EXPECT_TRUE(matches("title == '%@'", Value::dictionary({{"title", "%@"}})));
  // An argument string is a value, never parsed as a key path.
  EXPECT_FALSE(matches("title == %@", note, {Value("title")}));
  EXPECT_EQ(errorPosition("title == %@ AND priority == %d", {Value("x")}), 28);
  EXPECT_EQ(errorPosition("%K == 1", {Value(3)}), 0);
  EXPECT_EQ(errorPosition("priority == %q"), 12);
}

TEST_F(PredicateTest, ObjectsOnTheRightCompareAsValues) {
  auto folder = std::make_shared<GenericObject>("Folder", Value::dictionary({{"name", "A"}}));
  Value item = Value::dictionary({{"folder", Value::object(folder)}});
  EXPECT_TRUE(matches("folder == %@", item, {Value::object(folder)}));
  auto other = std::make_shared<GenericObject>("Folder", Value::dictionary({{"name", "B"}}));
  EXPECT_FALSE(matches("folder == %@", item, {Value::object(other)}));
  EXPECT_TRUE(
      matches("folder IN %@", item, {Value::array({Value::object(other), Value::object(folder)})}));
  EXPECT_TRUE(matches("ANY tags == %@", note, {work}));
}

TEST_F(PredicateTest, VariablesEvaluateAndSubstitute) {
  auto predicate = Predicate::parse("priority > $LOW AND title BEGINSWITH[c] $PREFIX");
  ASSERT_TRUE(predicate);
  Value vars = Value::dictionary({{"LOW", 3}, {"PREFIX", "caf"}});
  EXPECT_TRUE(predicate->evaluate(note, vars));
  EXPECT_FALSE(predicate->evaluate(note, Value::dictionary({{"LOW", 9}, {"PREFIX", "caf"}})));
  EXPECT_FALSE(predicate->evaluate(note));  // unset variables are nil

  auto partial = predicate->withSubstitutionVariables(Value::dictionary({{"LOW", 3}}));
  EXPECT_EQ(partial->format(), "priority > 3 AND title BEGINSWITH[c] $PREFIX");
  auto full = partial->withSubstitutionVariables(Value::dictionary({{"PREFIX", "CAF"}}));
  EXPECT_EQ(full->format(), "priority > 3 AND title BEGINSWITH[c] \"CAF\"");
  EXPECT_TRUE(full->evaluate(note));
  auto between = Predicate::parse("priority BETWEEN $RANGE");
  ASSERT_TRUE(between);
  EXPECT_TRUE(
      between->withSubstitutionVariables(Value::dictionary({{"RANGE", Value::array({1, 5})}}))
          ->evaluate(note));
}

TEST_F(PredicateTest, SyntaxErrorsAndDeepNestingNameTheirPosition) {
  EXPECT_EQ(errorPosition("title == "), 9);
  EXPECT_EQ(errorPosition("title"), 5);
  EXPECT_EQ(errorPosition("title = = 1"), 8);
  EXPECT_EQ(errorPosition("(title == 1"), 11);
  EXPECT_EQ(errorPosition("title == 1)"), 10);
  EXPECT_EQ(errorPosition("title BEGINSWITH[x] 'a'"), 17);
  EXPECT_EQ(errorPosition("title == 'open"), 9);
  EXPECT_EQ(errorPosition("título == 1 AND ?"), 16);  // characters, not bytes
  EXPECT_EQ(errorPosition("a == 1 & b == 2"), 7);
  EXPECT_EQ(errorPosition("a BETWEEN {1, 2, 3}"), 10);
  EXPECT_EQ(errorPosition("a == 12abc"), 7);
  EXPECT_EQ(errorPosition("a == 5e999"), 5);  // infinity cannot be written back
  EXPECT_EQ(errorPosition("a. == 1"), 3);
  EXPECT_EQ(errorPosition("a == 1 + 2"), 7);
  EXPECT_EQ(errorPosition(""), 0);

  // Deep nesting is an error, not a crash.
  const size_t depth = 100000;
  EXPECT_GE(errorPosition(std::string(depth, '(') + "a == 1" + std::string(depth, ')')), 0);
  std::string nots;
  for (size_t i = 0; i < depth; ++i) nots += "NOT ";
  EXPECT_GE(errorPosition(nots + "a == 1"), 0);
  EXPECT_GE(errorPosition("a IN " + std::string(depth, '{') + std::string(depth, '}')), 0);
  // Reasonable nesting is fine.
  EXPECT_EQ(errorPosition(std::string(50, '(') + "a == 1" + std::string(50, ')')), -1);
  // Long flat chains are not nesting.
  std::string chain = "a == 0";
  for (int i = 1; i < 20000; ++i) chain += " OR a == " + std::to_string(i);
  EXPECT_TRUE(matches(chain, Value::dictionary({{"a", 19999}})));
}

TEST_F(PredicateTest, FormatParsesBackToAnEqualPredicate) {
  for (const char* text : {
           "priority > 3 AND title BEGINSWITH[c] \"a\"",
           "(a == 1 OR b != 2) AND NOT c <= 3.5",
           "ANY tags.name IN {\"x\", \"y\\\"z\"} OR NONE scores >= -2",
           "ALL #in.#size LIKE[cd] \"a*?\" AND SELF.x MATCHES \"^a$\"",
           "d BETWEEN {CAST(10, \"NSDate\"), CAST(20.5, \"NSDate\")} AND done == YES",
           "v == $VAR AND n == nil AND items.@count == 0 AND TRUEPREDICATE",
           "#8 == t AND a.#2b.c == 1",  // keys that would read back as numbers
           "a.self.b == 1 AND #self.c == 2",
           "ANY SELF.self IN {1, 2} AND self.x == 1",  // spellings of the object itself
           "t == \"100% sure, 50%% off\"",
       }) {
    auto first = Predicate::parse(text);
    ASSERT_TRUE(first) << text;
    std::string canonical = first->format();
    auto second = Predicate::parse(canonical);
    ASSERT_TRUE(second) << canonical;
    EXPECT_TRUE(*first == *second) << canonical;
    EXPECT_EQ(second->format(), canonical);
  }
  EXPECT_FALSE(*Predicate::parse("a == 1") == *Predicate::parse("a == 2"));
  EXPECT_FALSE(*Predicate::parse("SELF.a == 1") == *Predicate::parse("a.SELF.b == 1"));
  EXPECT_FALSE(*Predicate::parse("a ==[c] 'x'") == *Predicate::parse("a == 'x'"));

  // Compounds built from parsed predicates.
  std::vector<std::shared_ptr<const Predicate>> parts = {Predicate::parse("priority == 4"),
                                                         Predicate::parse("done == YES")};
  EXPECT_FALSE(Predicate::andPredicate(parts)->evaluate(note));
  EXPECT_TRUE(Predicate::orPredicate(parts)->evaluate(note));
  EXPECT_TRUE(Predicate::notPredicate(parts[1])->evaluate(note));
  EXPECT_EQ(Predicate::andPredicate(parts)->format(), "priority == 4 AND done == YES");
  EXPECT_TRUE(Predicate::truePredicate()->evaluate(Value()));
}

}  // namespace
}  // namespace quillon
