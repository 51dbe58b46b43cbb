#include "quillon/graph/internal/predicate_node.h"

#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>

// The breadth-first matcher is selected with a libstdc++ flag.
#ifndef __GLIBCXX__
#error "MATCHES needs libstdc++'s polynomial regex matcher"
#endif

namespace quillon::predicate_internal {
namespace {

// Markers of a compiled LIKE pattern; outside the code-point range.
constexpr char32_t kLikeStar = 0xFFFFFFF0;
constexpr char32_t kLikeAny = 0xFFFFFFF1;

// Bounds on what is handed to std::regex. Patterns run on the standard
// library's breadth-first (polynomial) matcher, whose work is at most
// subject length x automaton states x (groups + 1) and whose recursion follows
// empty transitions only, never the subject; the backtracking matcher can take
// exponential time on patterns such as "(a|a)*b", so it is never used, and
// back-references (which only it supports) make a pattern that never matches.
// A pattern longer than kMaxRegexPattern, or whose automaton could exceed
// kMaxRegexStates, never matches; a subject is matched only while its
// estimated work stays within kRegexWorkBudget, past which the answer is no
// match. The budget keeps one evaluation to milliseconds.
constexpr size_t kMaxRegexPattern = 1000;
constexpr size_t kMaxRegexStates = 4000;
constexpr size_t kRegexWorkBudget = 4'000'000;
constexpr size_t kMaxCachedRegexes = 32;

struct RegexShape {
  size_t states = 0;      // an upper bound on the automaton's states
  size_t groups = 0;      // capturing groups
  size_t lookaheads = 0;  // deepest nesting of (?= and (?!
  // A number (a back-reference or a repetition count) too long for the
  // regex compiler, which reads it into a long without checking for overflow.
  bool hugeNumber = false;
};

// Numbers the regex compiler reads: a long run of digits overflows it.
constexpr size_t kMaxRegexDigits = 9;

size_t digitsAt(std::u32string_view p, size_t i) {
  size_t n = 0;
  while (i + n < p.size() && p[i + n] >= '0' && p[i + n] <= '9') ++n;
  return n;
}

size_t saturatingAdd(size_t a, size_t b) { return a > SIZE_MAX - b ? SIZE_MAX : a + b; }
size_t saturatingMul(size_t a, size_t b) {
  return b != 0 && a > SIZE_MAX / b ? SIZE_MAX : a * b;
}

// Reads the pattern as the ECMAScript grammar does, closely enough to bound
// the automaton: every atom and operator costs a few states, and a counted
// repetition {m,n} copies its atom up to n times (or m + 1 times when open).
// Misreadings only ever overestimate.
RegexShape regexShape(std::u32string_view p) {
  struct Frame {
    size_t total = 0;
    size_t lastAtom = 0;
    bool lookahead = false;
  };
  std::vector<Frame> frames(1);
  RegexShape shape;
  size_t lookaheadDepth = 0;
  auto atom = [&](size_t size) {
    frames.back().total = saturatingAdd(frames.back().total, size);
    frames.back().lastAtom = size;
  };
  for (size_t i = 0; i < p.size(); ++i) {
    char32_t c = p[i];
    switch (c) {
      case '\\':
        if (digitsAt(p, i + 1) > kMaxRegexDigits) shape.hugeNumber = true;
        ++i;
        atom(2);
        break;
      case '[':
        for (++i; i < p.size() && p[i] != ']'; ++i) {
          if (p[i] != '\\') continue;
          if (digitsAt(p, i + 1) > kMaxRegexDigits) shape.hugeNumber = true;
          ++i;
        }
        atom(2);
        break;
      case '(': {
        Frame frame;
        if (i + 2 < p.size() && p[i + 1] == '?' && (p[i + 2] == '=' || p[i + 2] == '!')) {
          frame.lookahead = true;
          shape.lookaheads = std::max(shape.lookaheads, ++lookaheadDepth);
        } else if (!(i + 1 < p.size() && p[i + 1] == '?')) {
          ++shape.groups;
        }
        frames.push_back(frame);
        break;
      }
      case ')':
        if (frames.size() > 1) {
          Frame inner = frames.back();
          frames.pop_back();
          if (inner.lookahead) --lookaheadDepth;
          atom(saturatingAdd(inner.total, 4));
        } else {
          atom(2);
        }
        break;
      case '|':
        frames.back().total = saturatingAdd(frames.back().total, 4);
        frames.back().lastAtom = 0;
        break;
      case '*':
      case '+':
      case '?':
        frames.back().total = saturatingAdd(frames.back().total, 4);
        break;
      case '{': {
        // {m}, {m,} or {m,n}; anything else is read as a literal brace.
        if (digitsAt(p, i + 1) > kMaxRegexDigits) shape.hugeNumber = true;
        size_t j = i + 1, low = 0, high = 0;
        bool digits = false, comma = false, highDigits = false;
        for (; j < p.size() && p[j] >= '0' && p[j] <= '9'; ++j) {
          low = std::min<size_t>(saturatingAdd(saturatingMul(low, 10), p[j] - '0'), 1 << 20);
          digits = true;
        }
        if (j < p.size() && p[j] == ',') {
          if (digitsAt(p, j + 1) > kMaxRegexDigits) shape.hugeNumber = true;
          comma = true;
          for (++j; j < p.size() && p[j] >= '0' && p[j] <= '9'; ++j) {
            high = std::min<size_t>(saturatingAdd(saturatingMul(high, 10), p[j] - '0'), 1 << 20);
            highDigits = true;
          }
        }
        if (digits && j < p.size() && p[j] == '}') {
          size_t copies = !comma ? low : highDigits ? std::max(low, high) : low + 1;
          Frame& f = frames.back();
          f.total = saturatingAdd(f.total, saturatingAdd(saturatingMul(f.lastAtom, copies), 4));
          i = j;
        } else {
          atom(2);
        }
        break;
      }
      default:
        atom(2);
    }
  }
  // Groups left open make the pattern fail to compile; count them anyway.
  size_t total = 0;
  for (const Frame& f : frames) total = saturatingAdd(total, saturatingAdd(f.total, 4));
  shape.states = saturatingAdd(total, 2);
  return shape;
}

// The longest subject (in code points) whose matching stays within the work
// budget: n x states x (groups + 1) for the matcher, times n again for each
// level of lookahead, which starts a matcher of its own at every position.
size_t maxRegexSubject(const RegexShape& shape) {
  size_t perCharacter = saturatingMul(shape.states, shape.groups + 1);
  if (perCharacter == 0 || perCharacter > kRegexWorkBudget) return 0;
  double n = static_cast<double>(kRegexWorkBudget / perCharacter);
  if (shape.lookaheads > 0) n = std::pow(n, 1.0 / static_cast<double>(shape.lookaheads + 1));
  return static_cast<size_t>(n);
}

// Reusable buffers, so that folding text allocates only while they grow.
thread_local std::u32string tlsText;
thread_local std::u32string tlsNeedle;
thread_local std::u32string tlsPattern;
thread_local std::wstring tlsWide;

const Value& nilValue() {
  static const Value* nil = new Value();
  return *nil;
}

bool isNone(const Value& v) { return v.isNil() || v.isNull(); }

void compileLike(const std::u32string& folded, std::u32string* out) {
  out->clear();
  for (size_t i = 0; i < folded.size(); ++i) {
    char32_t c = folded[i];
    if (c == '\\' && i + 1 < folded.size()) {
      out->push_back(folded[++i]);
    } else if (c == '*') {
      out->push_back(kLikeStar);
    } else if (c == '?') {
      out->push_back(kLikeAny);
    } else {
      out->push_back(c);
    }
  }
}

// Wildcard matching with single-star backtracking: linear in practice and
// never recursive.
bool likeMatch(std::u32string_view text, std::u32string_view pattern) {
  size_t t = 0, p = 0, starP = std::u32string_view::npos, starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == kLikeAny || pattern[p] == text[t])) {
      ++t;
      ++p;
    } else if (p < pattern.size() && pattern[p] == kLikeStar) {
      starP = p++;
      starT = t;
    } else if (starP != std::u32string_view::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == kLikeStar) ++p;
  return p == pattern.size();
}

void appendQuoted(std::string_view s, std::string* out) {
  out->push_back('"');
  for (char c : s) {
    switch (c) {
      case '"':
        *out += "\\\"";
        break;
      case '\\':
        *out += "\\\\";
        break;
      case '\n':
        *out += "\\n";
        break;
      case '\r':
        *out += "\\r";
        break;
      case '\t':
        *out += "\\t";
        break;
      case '%':  // the reader takes "%%" for one percent sign, in quotes too
        *out += "%%";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
          *out += buf;
        } else {
          out->push_back(c);
        }
    }
  }
  out->push_back('"');
}

void appendDouble(double d, std::string* out) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", d);
  *out += buf;
}

void formatValue(const Value& v, std::string* out) {
  switch (v.kind()) {
    case Value::Kind::Nil:
    case Value::Kind::Null:
      *out += "nil";
      return;
    case Value::Kind::Boolean:
      *out += v.boolValue() ? "YES" : "NO";
      return;
    case Value::Kind::Integer:
      *out += std::to_string(v.intValue());
      return;
    case Value::Kind::Float32:
    case Value::Kind::Float64:
      appendDouble(v.doubleValue(), out);
      return;
    case Value::Kind::Decimal:
      *out += v.decimalValue().toString();
      return;
    case Value::Kind::String:
      appendQuoted(v.str(), out);
      return;
    case Value::Kind::Date:
      *out += "CAST(";
      appendDouble(v.dateValue(), out);
      *out += ", \"NSDate\")";
      return;
    case Value::Kind::Array:
    case Value::Kind::Set:
    case Value::Kind::OrderedSet: {
      *out += "{";
      bool first = true;
      for (const Value& e : v.elements()) {
        if (!first) *out += ", ";
        first = false;
        formatValue(e, out);
      }
      *out += "}";
      return;
    }
    default:
      *out += v.description();
      return;
  }
}

void formatKeyPath(const quillon::KeyPath& path, std::string* out) {
  if (path.isSelf()) {
    *out += "SELF";
    return;
  }
  std::string_view s = path.string();
  size_t start = 0;
  for (;;) {
    size_t dot = s.find('.', start);
    std::string_view part = s.substr(start, dot == s.npos ? s.npos : dot - start);
    if (start != 0) out->push_back('.');
    if (part == "self" || part == "SELF") {
      *out += "SELF";
    } else {
      // A key that would read back as a keyword or a number is escaped.
      const bool numeric = !part.empty() && part[0] >= '0' && part[0] <= '9';
      if (numeric || isReservedWord(part)) out->push_back('#');
      *out += part;
    }
    if (dot == s.npos) break;
    start = dot + 1;
  }
}

void formatExpression(const Expression& e, std::string* out) {
  switch (e.type) {
    case Expression::Type::Constant:
      formatValue(e.constant, out);
      return;
    case Expression::Type::KeyPath:
      formatKeyPath(e.keyPath, out);
      return;
    case Expression::Type::Variable:
      *out += "$" + e.variable;
      return;
    case Expression::Type::Aggregate: {
      *out += "{";
      for (size_t i = 0; i < e.elements.size(); ++i) {
        if (i) *out += ", ";
        formatExpression(e.elements[i], out);
      }
      *out += "}";
      return;
    }
  }
}

const char* operatorText(Operator op) {
  switch (op) {
    case Operator::Equal:
      return "==";
    case Operator::NotEqual:
      return "!=";
    case Operator::Less:
      return "<";
    case Operator::LessOrEqual:
      return "<=";
    case Operator::Greater:
      return ">";
    case Operator::GreaterOrEqual:
      return ">=";
    case Operator::Between:
      return "BETWEEN";
    case Operator::BeginsWith:
      return "BEGINSWITH";
    case Operator::EndsWith:
      return "ENDSWITH";
    case Operator::Contains:
      return "CONTAINS";
    case Operator::Like:
      return "LIKE";
    case Operator::Matches:
      return "MATCHES";
    case Operator::In:
      return "IN";
  }
  return "?";
}

bool substituteExpression(const Expression& e, const Value& variables, Expression* out) {
  if (e.type == Expression::Type::Variable) {
    const Value* v = variables.find(std::string_view(e.variable));
    if (!v) return false;
    *out = Expression::makeConstant(*v);
    return true;
  }
  if (e.type == Expression::Type::Aggregate) {
    bool changed = false;
    Expression copy = e;
    for (auto& element : copy.elements) {
      Expression replaced;
      if (substituteExpression(element, variables, &replaced)) {
        element = std::move(replaced);
        changed = true;
      }
    }
    if (changed) *out = std::move(copy);
    return changed;
  }
  return false;
}

}  // namespace

// ---- Expressions -----------------------------------------------------------

Expression Expression::makeConstant(Value v) {
  Expression e;
  e.type = Type::Constant;
  e.constant = std::move(v);
  return e;
}

Expression Expression::makeKeyPath(std::string_view path) {
  Expression e;
  e.type = Type::KeyPath;
  e.keyPath = quillon::KeyPath(path);
  return e;
}

Expression Expression::makeVariable(std::string_view name) {
  Expression e;
  e.type = Type::Variable;
  e.variable = std::string(name);
  return e;
}

const Value& Expression::evaluate(const Value& object, const Value& variables,
                                  Value* storage) const {
  switch (type) {
    case Type::Constant:
      return constant;
    case Type::KeyPath:
      return keyPath.resolve(object, storage);
    case Type::Variable:
      return variables.get(std::string_view(variable));
    case Type::Aggregate: {
      Value array = Value::array();
      array.reserve(elements.size());
      for (const Expression& element : elements) {
        Value elementStorage;
        const Value& v = element.evaluate(object, variables, &elementStorage);
        array.append(isNone(v) ? Value::null() : v);
      }
      *storage = std::move(array);
      return *storage;
    }
  }
  return nilValue();
}

bool Expression::operator==(const Expression& other) const {
  if (type != other.type) return false;
  switch (type) {
    case Type::Constant:
      return constant == other.constant;
    case Type::KeyPath: {
      // Paths that name the same thing are equal however they were spelt
      // ("SELF.self" and "SELF", "self.name" and "SELF.name").
      if (keyPath.string() == other.keyPath.string()) return true;
      std::string mine, theirs;
      formatKeyPath(keyPath, &mine);
      formatKeyPath(other.keyPath, &theirs);
      return mine == theirs;
    }
    case Type::Variable:
      return variable == other.variable;
    case Type::Aggregate:
      return elements == other.elements;
  }
  return false;
}

// ---- Regular expressions ---------------------------------------------------

std::shared_ptr<const RegexCache::Compiled> RegexCache::get(std::u32string_view pattern,
                                                            bool caseInsensitive) {
  std::u32string key(pattern);
  key.push_back(caseInsensitive ? U'i' : U'-');
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [k, regex] : entries_) {
    if (k == key) return regex;
  }
  std::shared_ptr<const Compiled> compiled;
  RegexShape shape = pattern.size() <= kMaxRegexPattern ? regexShape(pattern) : RegexShape{};
  size_t maxSubject = maxRegexSubject(shape);
  if (pattern.size() <= kMaxRegexPattern && shape.states <= kMaxRegexStates && maxSubject > 0 &&
      !shape.hugeNumber) {
    try {
      auto flags = std::regex::ECMAScript | std::regex_constants::__polynomial;
      if (caseInsensitive) flags |= std::regex::icase;
      std::wstring wide(pattern.begin(), pattern.end());
      compiled = std::make_shared<const Compiled>(Compiled{std::wregex(wide, flags), maxSubject});
    } catch (const std::regex_error&) {
      compiled = nullptr;
    }
  }
  if (entries_.size() >= kMaxCachedRegexes) entries_.erase(entries_.begin());
  entries_.emplace_back(std::move(key), compiled);
  return compiled;
}

// ---- Construction ----------------------------------------------------------

NodePtr makeConstantNode(bool value) {
  auto node = std::make_shared<Node>();
  node->type = value ? Node::Type::True : Node::Type::False;
  return node;
}

NodePtr makeCompound(Node::Type type, std::vector<NodePtr> children) {
  auto node = std::make_shared<Node>();
  node->type = type;
  node->children = std::move(children);
  return node;
}

NodePtr makeComparison(Modifier modifier, Expression lhs, Operator op, FoldOptions options,
                       Expression rhs) {
  auto node = std::make_shared<Node>();
  node->type = Node::Type::Comparison;
  node->modifier = modifier;
  node->op = op;
  node->options = options;
  node->lhs = std::move(lhs);
  node->rhs = std::move(rhs);
  if (node->rhs.type == Expression::Type::Constant && node->rhs.constant.isString()) {
    node->rhsPrepared = true;
    foldText(node->rhs.constant.str(), options, &node->foldedRhs);
    if (op == Operator::Like) compileLike(node->foldedRhs, &node->likePattern);
  }
  if (op == Operator::Matches) node->regexes = std::make_unique<RegexCache>();
  return node;
}

// ---- Evaluation ------------------------------------------------------------

bool Node::evaluate(const Value& object, const Value& variables) const {
  switch (type) {
    case Type::True:
      return true;
    case Type::False:
      return false;
    case Type::And:
      for (const auto& child : children) {
        if (!child->evaluate(object, variables)) return false;
      }
      return true;
    case Type::Or:
      for (const auto& child : children) {
        if (child->evaluate(object, variables)) return true;
      }
      return false;
    case Type::Not:
      return !children[0]->evaluate(object, variables);
    case Type::Comparison:
      return evaluateComparison(object, variables);
  }
  return false;
}

bool Node::evaluateComparison(const Value& object, const Value& variables) const {
  Value leftStorage, rightStorage;
  const Value& left = lhs.evaluate(object, variables, &leftStorage);
  const Value& right = rhs.evaluate(object, variables, &rightStorage);
  if (modifier == Modifier::Direct) return compare(left, right, rhsPrepared);
  std::span<const Value> elements;
  if (left.isSequence()) {
    elements = left.elements();
  } else if (!isNone(left)) {
    elements = std::span<const Value>(&left, 1);
  }
  bool any = false;
  for (const Value& element : elements) {
    bool matched = compare(element, right, rhsPrepared);
    if (modifier == Modifier::All && !matched) return false;
    if (matched) {
      any = true;
      if (modifier != Modifier::All) break;
    }
  }
  switch (modifier) {
    case Modifier::Any:
      return any;
    case Modifier::None:
      return !any;
    default:
      return true;  // All: no element failed
  }
}

namespace {

bool equalValues(const Value& l, const Value& r, FoldOptions options) {
  if (l.isString() && r.isString()) {
    return options.any() ? compareFolded(l.str(), r.str(), options) == 0 : l.str() == r.str();
  }
  if (isNone(l) || isNone(r)) return isNone(l) && isNone(r);
  return l == r;
}

// Orders two values of a comparable pair of kinds; false for any other pair.
bool ordered(const Value& l, const Value& r, FoldOptions options, int* result) {
  if (l.isString() && r.isString()) {
    *result = compareFolded(l.str(), r.str(), options);
    return true;
  }
  if ((l.isNumber() && r.isNumber()) || (l.isDate() && r.isDate())) {
    *result = compareValues(l, r);
    return true;
  }
  return false;
}

bool containsText(std::string_view haystack, std::string_view needle, FoldOptions options,
                  const std::u32string* preparedNeedle) {
  if (!options.any()) return haystack.find(needle) != std::string_view::npos;
  if (!preparedNeedle) {
    foldText(needle, options, &tlsNeedle);
    preparedNeedle = &tlsNeedle;
  }
  foldText(haystack, options, &tlsText);
  return std::u32string_view(tlsText).find(*preparedNeedle) != std::u32string_view::npos;
}

bool containsElement(const Value& collection, const Value& element, FoldOptions options) {
  if (collection.isDictionary()) {
    for (const auto& entry : collection.items()) {
      if (equalValues(entry.second, element, options)) return true;
    }
    return false;
  }
  for (const Value& e : collection.elements()) {
    if (equalValues(e, element, options)) return true;
  }
  return false;
}

}  // namespace

bool Node::compare(const Value& left, const Value& right, bool rhsIsConstant) const {
  int order = 0;
  switch (op) {
    case Operator::Equal:
      return equalValues(left, right, options);
    case Operator::NotEqual:
      return !equalValues(left, right, options);
    case Operator::Less:
      return ordered(left, right, options, &order) && order < 0;
    case Operator::LessOrEqual:
      return ordered(left, right, options, &order) && order <= 0;
    case Operator::Greater:
      return ordered(left, right, options, &order) && order > 0;
    case Operator::GreaterOrEqual:
      return ordered(left, right, options, &order) && order >= 0;
    case Operator::Between: {
      if (!right.isSequence() || right.size() != 2) return false;
      int low = 0, high = 0;
      return ordered(left, right[0], options, &low) && ordered(left, right[1], options, &high) &&
             low >= 0 && high <= 0;
    }
    case Operator::In:
      if (right.isContainer()) return containsElement(right, left, options);
      if (right.isString() && left.isString()) {
        return containsText(right.str(), left.str(), options, nullptr);
      }
      return false;
    case Operator::Contains:
      if (left.isContainer()) return containsElement(left, right, options);
      if (left.isString() && right.isString()) {
        return containsText(left.str(), right.str(), options, rhsIsConstant ? &foldedRhs : nullptr);
      }
      return false;
    default:
      break;
  }
  if (!left.isString() || !right.isString()) return false;
  std::string_view text = left.str();
  switch (op) {
    case Operator::BeginsWith: {
      if (!options.any()) return text.starts_with(right.str());
      const std::u32string* prefix = &foldedRhs;
      if (!rhsIsConstant) {
        foldText(right.str(), options, &tlsNeedle);
        prefix = &tlsNeedle;
      }
      size_t i = 0;
      for (char32_t expected : *prefix) {
        if (nextFolded(text, &i, options) != expected) return false;
      }
      return true;
    }
    case Operator::EndsWith: {
      if (!options.any()) return text.ends_with(right.str());
      const std::u32string* suffix = &foldedRhs;
      if (!rhsIsConstant) {
        foldText(right.str(), options, &tlsNeedle);
        suffix = &tlsNeedle;
      }
      foldText(text, options, &tlsText);
      return std::u32string_view(tlsText).ends_with(*suffix);
    }
    case Operator::Like: {
      const std::u32string* pattern = &likePattern;
      if (!rhsIsConstant) {
        foldText(right.str(), options, &tlsNeedle);
        compileLike(tlsNeedle, &tlsPattern);
        pattern = &tlsPattern;
      }
      foldText(text, options, &tlsText);
      return likeMatch(tlsText, *pattern);
    }
    case Operator::Matches: {
      // Case folding is left to the regex (icase), since folding the pattern
      // would change escapes such as \D; diacritics fold on both sides.
      FoldOptions fold{false, options.diacriticInsensitive};
      foldText(right.str(), fold, &tlsNeedle);
      auto compiled = regexes->get(tlsNeedle, options.caseInsensitive);
      if (!compiled || text.size() > compiled->maxSubject * 4) return false;
      foldText(text, fold, &tlsText);
      if (tlsText.size() > compiled->maxSubject) return false;
      tlsWide.assign(tlsText.begin(), tlsText.end());
      return std::regex_match(tlsWide, compiled->regex);
    }
    default:
      return false;
  }
}

// ---- Compiled evaluation ---------------------------------------------------

Program::Program(const Node& root) { add(root); }

uint32_t Program::add(const Node& node) {
  auto index = static_cast<uint32_t>(steps_.size());
  steps_.emplace_back();
  Step step;
  switch (node.type) {
    case Node::Type::True:
      step.kind = Kind::True;
      break;
    case Node::Type::False:
      step.kind = Kind::False;
      break;
    case Node::Type::And:
    case Node::Type::Or:
    case Node::Type::Not: {
      step.kind = node.type == Node::Type::And ? Kind::And
                  : node.type == Node::Type::Or ? Kind::Or
                                                : Kind::Not;
      // Children's steps first, then their indices side by side.
      std::vector<uint32_t> children;
      children.reserve(node.children.size());
      for (const auto& child : node.children) children.push_back(add(*child));
      step.first = static_cast<uint32_t>(children_.size());
      step.count = static_cast<uint32_t>(children.size());
      children_.insert(children_.end(), children.begin(), children.end());
      break;
    }
    case Node::Type::Comparison: {
      step.kind = Kind::Comparison;
      step.node = &node;
      step.op = node.op;
      if (node.modifier != Modifier::Direct || node.lhs.type != Expression::Type::KeyPath ||
          node.rhs.type != Expression::Type::Constant) {
        break;
      }
      step.kind = Kind::KeyToConstant;
      const Value& constant = node.rhs.constant;
      const bool ordering = node.op == Operator::Less || node.op == Operator::LessOrEqual ||
                            node.op == Operator::Greater || node.op == Operator::GreaterOrEqual;
      if (constant.isInteger() &&
          (ordering || node.op == Operator::Equal || node.op == Operator::NotEqual)) {
        step.kind = Kind::KeyToInteger;
        step.integer = constant.intValue();
      } else if (constant.isFloat() && ordering) {
        step.kind = Kind::KeyToReal;
        step.real = constant.doubleValue();
      }
      break;
    }
  }
  steps_[index] = step;
  return index;
}

bool Program::run(uint32_t index, const Value& object, const Value& variables) const {
  const Step& step = steps_[index];
  switch (step.kind) {
    case Kind::True:
      return true;
    case Kind::False:
      return false;
    case Kind::And:
      for (uint32_t i = 0; i < step.count; ++i) {
        if (!run(children_[step.first + i], object, variables)) return false;
      }
      return true;
    case Kind::Or:
      for (uint32_t i = 0; i < step.count; ++i) {
        if (run(children_[step.first + i], object, variables)) return true;
      }
      return false;
    case Kind::Not:
      return !run(children_[step.first], object, variables);
    case Kind::Comparison:
      return step.node->evaluateComparison(object, variables);
    default:
      return compare(step, object);
  }
}

namespace {

template <typename T>
bool holds(Operator op, T left, T right) {
  switch (op) {
    case Operator::Equal:
      return left == right;
    case Operator::NotEqual:
      return left != right;
    case Operator::Less:
      return left < right;
    case Operator::LessOrEqual:
      return left <= right;
    case Operator::Greater:
      return left > right;
    default:
      return left >= right;
  }
}

}  // namespace

bool Program::compare(const Step& step, const Value& object) const {
  const Node& node = *step.node;
  Value storage;
  const Value& left = node.lhs.keyPath.resolve(object, &storage);
  if (step.kind == Kind::KeyToInteger && left.isInteger()) {
    return holds(step.op, left.intValue(), step.integer);
  }
  if (step.kind == Kind::KeyToReal && left.isFloat()) {
    // As compareValues() orders two floating-point numbers.
    double x = left.doubleValue(), y = step.real;
    int order = std::isnan(x) || std::isnan(y) ? (std::isnan(x) ? (std::isnan(y) ? 0 : -1) : 1)
                : x - y < 0                    ? -1
                : x - y > 0                    ? 1
                                               : 0;
    return holds(step.op, order, 0);
  }
  return node.compare(left, node.rhs.constant, node.rhsPrepared);
}

// ---- Formatting, equality, substitution ------------------------------------

void format(const Node& node, std::string* out) {
  switch (node.type) {
    case Node::Type::True:
      *out += "TRUEPREDICATE";
      return;
    case Node::Type::False:
      *out += "FALSEPREDICATE";
      return;
    case Node::Type::Not:
    case Node::Type::And:
    case Node::Type::Or: {
      if (node.type == Node::Type::Not) *out += "NOT ";
      for (size_t i = 0; i < node.children.size(); ++i) {
        if (i) *out += node.type == Node::Type::And ? " AND " : " OR ";
        const Node& child = *node.children[i];
        bool wrap = child.type == Node::Type::And || child.type == Node::Type::Or;
        if (wrap) out->push_back('(');
        format(child, out);
        if (wrap) out->push_back(')');
      }
      return;
    }
    case Node::Type::Comparison: {
      switch (node.modifier) {
        case Modifier::Any:
          *out += "ANY ";
          break;
        case Modifier::All:
          *out += "ALL ";
          break;
        case Modifier::None:
          *out += "NONE ";
          break;
        case Modifier::Direct:
          break;
      }
      formatExpression(node.lhs, out);
      out->push_back(' ');
      *out += operatorText(node.op);
      if (node.options.any()) {
        *out += "[";
        if (node.options.caseInsensitive) out->push_back('c');
        if (node.options.diacriticInsensitive) out->push_back('d');
        *out += "]";
      }
      out->push_back(' ');
      formatExpression(node.rhs, out);
      return;
    }
  }
}

bool equal(const Node& a, const Node& b) {
  if (a.type != b.type) return false;
  if (a.type == Node::Type::Comparison) {
    return a.modifier == b.modifier && a.op == b.op &&
           a.options.caseInsensitive == b.options.caseInsensitive &&
           a.options.diacriticInsensitive == b.options.diacriticInsensitive && a.lhs == b.lhs &&
           a.rhs == b.rhs;
  }
  if (a.children.size() != b.children.size()) return false;
  for (size_t i = 0; i < a.children.size(); ++i) {
    if (!equal(*a.children[i], *b.children[i])) return false;
  }
  return true;
}

NodePtr substitute(const NodePtr& node, const Value& variables) {
  switch (node->type) {
    case Node::Type::True:
    case Node::Type::False:
      return node;
    case Node::Type::And:
    case Node::Type::Or:
    case Node::Type::Not: {
      bool changed = false;
      std::vector<NodePtr> children;
      children.reserve(node->children.size());
      for (const auto& child : node->children) {
        children.push_back(substitute(child, variables));
        changed |= children.back() != child;
      }
      return changed ? makeCompound(node->type, std::move(children)) : node;
    }
    case Node::Type::Comparison: {
      Expression lhs = node->lhs, rhs = node->rhs;
      bool changed = substituteExpression(node->lhs, variables, &lhs);
      changed |= substituteExpression(node->rhs, variables, &rhs);
      if (!changed) return node;
      return makeComparison(node->modifier, std::move(lhs), node->op, node->options,
                            std::move(rhs));
    }
  }
  return node;
}

bool isReservedWord(std::string_view word) {
  static constexpr std::array<std::string_view, 29> kWords = {
      "AND",     "OR",         "NOT",           "IN",
      "BETWEEN", "BEGINSWITH", "ENDSWITH",      "CONTAINS",
      "LIKE",    "MATCHES",    "ANY",           "ALL",
      "NONE",    "SOME",       "TRUEPREDICATE", "FALSEPREDICATE",
      "YES",     "NO",         "TRUE",          "FALSE",
      "NIL",     "NULL",       "SELF",          "CAST",
      "FIRST",   "LAST",       "SIZE",          "SUBQUERY",
      "FUNCTION"};
  for (std::string_view w : kWords) {
    if (w.size() != word.size()) continue;
    bool same = true;
    for (size_t i = 0; i < w.size() && same; ++i) {
      char c = word[i];
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
      same = c == w[i];
    }
    if (same) return true;
  }
  return false;
}

}  // namespace quillon::predicate_internal
