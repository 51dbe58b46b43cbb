#pragma once

// The parsed form of a predicate, shared by the parser, the evaluator and the
// formatter. Internal to the graph layer: everything outside goes through
// quillon::Predicate.

#include <memory>
#include <mutex>
// GCC 12 reports a false maybe-uninitialized inside libstdc++'s regex
// compiler when built with sanitizers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"
#include "quillon/graph/key_value_coding.h"
#include "quillon/graph/internal/text_folding.h"

namespace quillon::predicate_internal {

// One side of a comparison.
struct Expression {
  enum class Type : uint8_t { Constant, KeyPath, Variable, Aggregate };
  Type type = Type::Constant;
  Value constant;
  quillon::KeyPath keyPath;
  std::string variable;
  std::vector<Expression> elements;  // Aggregate

  static Expression makeConstant(Value v);
  static Expression makeKeyPath(std::string_view path);
  static Expression makeVariable(std::string_view name);

  // The value for `object`; refers into the object's tree, into this
  // expression, into `variables` or into *storage.
  const Value& evaluate(const Value& object, const Value& variables, Value* storage) const;
  bool operator==(const Expression& other) const;
};

enum class Operator : uint8_t {
  Equal,
  NotEqual,
  Less,
  LessOrEqual,
  Greater,
  GreaterOrEqual,
  Between,
  BeginsWith,
  EndsWith,
  Contains,
  Like,
  Matches,
  In,
};

enum class Modifier : uint8_t { Direct, Any, All, None };

// Compiled regular expressions of one comparison, keyed by pattern, so that a
// MATCHES against a constant (or a few recurring patterns) compiles once.
// Patterns work on code points (wchar_t is UTF-32 here), so "." matches "é".
// Thread-safe.
class RegexCache {
 public:
  struct Compiled {
    std::wregex regex;
    // The longest subject (in code points) this pattern is run against: the
    // matcher's work grows with subject length times the pattern's size, so
    // past this bound it answers no match instead of taking seconds.
    size_t maxSubject = 0;
  };
  // nullptr for a pattern that does not compile (it then never matches).
  std::shared_ptr<const Compiled> get(std::u32string_view pattern, bool caseInsensitive);

 private:
  std::mutex mutex_;
  std::vector<std::pair<std::u32string, std::shared_ptr<const Compiled>>> entries_;
};

struct Node {
  enum class Type : uint8_t { True, False, And, Or, Not, Comparison };
  Type type = Type::True;
  std::vector<std::shared_ptr<const Node>> children;  // And, Or, Not

  // Comparison.
  Modifier modifier = Modifier::Direct;
  Operator op = Operator::Equal;
  FoldOptions options;
  Expression lhs;
  Expression rhs;
  // Prepared from a constant string right-hand side: its folded code points
  // and, for LIKE, the compiled wildcard pattern.
  bool rhsPrepared = false;
  std::u32string foldedRhs;
  std::u32string likePattern;
  std::unique_ptr<RegexCache> regexes;

  // Interprets the tree; Program gives the same answers faster.
  bool evaluate(const Value& object, const Value& variables) const;

 private:
  friend class Program;
  bool evaluateComparison(const Value& object, const Value& variables) const;
  bool compare(const Value& left, const Value& right, bool rhsIsConstant) const;
};

using NodePtr = std::shared_ptr<const Node>;

// A tree flattened once for evaluating against many objects: compounds become
// steps that refer to their children by index, and each comparison of a key
// path with a constant -- the common shape -- resolves its path directly and,
// for numbers, compares without converting either side. Anything else runs
// through the tree's own comparison, so the answers are the interpreter's.
// Refers into the tree, which must outlive it. Immutable; any thread.
class Program {
 public:
  explicit Program(const Node& root);
  bool evaluate(const Value& object, const Value& variables) const {
    return run(0, object, variables);
  }

 private:
  enum class Kind : uint8_t {
    True,
    False,
    And,
    Or,
    Not,
    Comparison,     // any comparison, interpreted
    KeyToConstant,  // key path, direct, constant right-hand side
    KeyToInteger,   // as KeyToConstant, integer constant, ordering or equality
    KeyToReal,      // as KeyToConstant, floating-point constant, ordering
  };
  struct Step {
    Kind kind = Kind::True;
    Operator op = Operator::Equal;
    uint32_t first = 0;  // And, Or, Not: children_[first, first + count)
    uint32_t count = 0;
    const Node* node = nullptr;  // comparisons
    int64_t integer = 0;
    double real = 0;
  };

  uint32_t add(const Node& node);
  bool run(uint32_t index, const Value& object, const Value& variables) const;
  bool compare(const Step& step, const Value& object) const;

  std::vector<Step> steps_;
  std::vector<uint32_t> children_;
};

NodePtr makeConstantNode(bool value);
NodePtr makeCompound(Node::Type type, std::vector<NodePtr> children);
NodePtr makeComparison(Modifier modifier, Expression lhs, Operator op, FoldOptions options,
                       Expression rhs);

// Deepest nesting of parentheses, NOT and braces the parser accepts; keeps
// recursion (parsing, evaluating, formatting, destroying) off the stack limit.
inline constexpr int kMaxNesting = 256;

NodePtr parse(std::string_view format, std::span<const Value> arguments, Error* error);
void format(const Node& node, std::string* out);
bool equal(const Node& a, const Node& b);
// The node with every variable that `variables` names replaced by its value;
// the node itself when nothing changes.
NodePtr substitute(const NodePtr& node, const Value& variables);

// Words that a key path must escape with '#'.
bool isReservedWord(std::string_view word);

}  // namespace quillon::predicate_internal
