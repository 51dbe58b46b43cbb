// The predicate format language: a hand-written lexer and recursive-descent
// parser with a nesting limit, producing predicate_internal nodes.

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

#include "quillon/graph/internal/predicate_node.h"

namespace quillon::predicate_internal {
namespace {

// The error code of a predicate that cannot be parsed.
constexpr int64_t kParseErrorCode = 2048;

struct ParseFailure {
  size_t position;
  std::string reason;
};

struct Token {
  enum class Kind {
    End,
    Identifier,
    AtIdentifier,
    String,
    Number,
    Argument,
    Variable,
    LParen,
    RParen,
    LBrace,
    RBrace,
    LBracket,
    RBracket,
    Comma,
    Dot,
    Operator,
  };
  Kind kind = Kind::End;
  size_t position = 0;
  std::string text;
  Value value;
  bool escaped = false;  // an identifier written with '#'
};

bool isIdentifierStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool isIdentifierChar(char c) { return isIdentifierStart(c) || (c >= '0' && c <= '9'); }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  Token next() {
    skipSpace();
    Token t;
    t.position = i_;
    if (i_ >= text_.size()) return t;
    char c = text_[i_];
    if (isIdentifierStart(c) || c == '#') return identifier(t);
    if (c >= '0' && c <= '9') return number(t);
    switch (c) {
      case '\'':
      case '"':
        return quoted(t);
      case '@':
        ++i_;
        t.kind = Token::Kind::AtIdentifier;
        t.text = "@" + readIdentifierChars();
        if (t.text.size() == 1) fail(t.position, "expected a collection operator after '@'");
        return t;
      case '$':
        ++i_;
        t.kind = Token::Kind::Variable;
        t.text = readIdentifierChars();
        if (t.text.empty()) fail(t.position, "expected a variable name after '$'");
        return t;
      case '%':
        return directive(t);
      case '(':
        return single(t, Token::Kind::LParen);
      case ')':
        return single(t, Token::Kind::RParen);
      case '{':
        return single(t, Token::Kind::LBrace);
      case '}':
        return single(t, Token::Kind::RBrace);
      case '[':
        return single(t, Token::Kind::LBracket);
      case ']':
        return single(t, Token::Kind::RBracket);
      case ',':
        return single(t, Token::Kind::Comma);
      case '.':
        return single(t, Token::Kind::Dot);
      default:
        return op(t);
    }
  }

  [[noreturn]] static void fail(size_t position, std::string reason) {
    throw ParseFailure{position, std::move(reason)};
  }

 private:
  void skipSpace() {
    while (i_ < text_.size() &&
           (text_[i_] == ' ' || text_[i_] == '\t' || text_[i_] == '\n' || text_[i_] == '\r')) {
      ++i_;
    }
  }

  Token single(Token& t, Token::Kind kind) {
    ++i_;
    t.kind = kind;
    return t;
  }

  std::string readIdentifierChars() {
    size_t start = i_;
    while (i_ < text_.size() && isIdentifierChar(text_[i_])) ++i_;
    return std::string(text_.substr(start, i_ - start));
  }

  Token identifier(Token& t) {
    t.kind = Token::Kind::Identifier;
    if (text_[i_] == '#') {
      ++i_;
      t.escaped = true;
    }
    t.text = readIdentifierChars();
    if (t.text.empty()) fail(t.position, "expected a key after '#'");
    return t;
  }

  Token number(Token& t) {
    t.kind = Token::Kind::Number;
    size_t start = i_;
    if (text_[i_] == '0' && i_ + 1 < text_.size() &&
        (text_[i_ + 1] == 'x' || text_[i_ + 1] == 'X' || text_[i_ + 1] == 'b' ||
         text_[i_ + 1] == 'B' || text_[i_ + 1] == 'o' || text_[i_ + 1] == 'O')) {
      char radixChar = static_cast<char>(text_[i_ + 1] | 0x20);
      int radix = radixChar == 'x' ? 16 : (radixChar == 'b' ? 2 : 8);
      i_ += 2;
      uint64_t v = 0;
      size_t digits = 0;
      for (; i_ < text_.size(); ++i_, ++digits) {
        int d = hexDigit(text_[i_]);
        if (d < 0 || d >= radix) break;
        if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / static_cast<uint64_t>(radix)) {
          fail(start, "number too large");
        }
        v = v * static_cast<uint64_t>(radix) + static_cast<uint64_t>(d);
      }
      if (digits == 0) fail(start, "expected digits after the radix prefix");
      if (i_ < text_.size() && isIdentifierChar(text_[i_])) fail(i_, "malformed number");
      t.value = v > static_cast<uint64_t>(INT64_MAX) ? Value::float64(static_cast<double>(v))
                                                     : Value::integer(static_cast<int64_t>(v));
      return t;
    }
    bool isFloat = false;
    while (i_ < text_.size() && text_[i_] >= '0' && text_[i_] <= '9') ++i_;
    if (i_ + 1 < text_.size() && text_[i_] == '.' && text_[i_ + 1] >= '0' && text_[i_ + 1] <= '9') {
      isFloat = true;
      ++i_;
      while (i_ < text_.size() && text_[i_] >= '0' && text_[i_] <= '9') ++i_;
    }
    if (i_ < text_.size() && (text_[i_] == 'e' || text_[i_] == 'E')) {
      size_t j = i_ + 1;
      if (j < text_.size() && (text_[j] == '+' || text_[j] == '-')) ++j;
      if (j < text_.size() && text_[j] >= '0' && text_[j] <= '9') {
        isFloat = true;
        i_ = j;
        while (i_ < text_.size() && text_[i_] >= '0' && text_[i_] <= '9') ++i_;
      }
    }
    if (i_ < text_.size() && isIdentifierChar(text_[i_])) fail(i_, "malformed number");
    std::string digits(text_.substr(start, i_ - start));
    if (!isFloat) {
      int64_t v = 0;
      auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
      if (ec == std::errc() && end == digits.data() + digits.size()) {
        t.value = Value::integer(v);
        return t;
      }
    }
    const double v = std::strtod(digits.c_str(), nullptr);
    // Infinity has no literal form to write the predicate back with.
    if (!std::isfinite(v)) fail(start, "number too large");
    t.value = Value::float64(v);
    return t;
  }

  Token quoted(Token& t) {
    t.kind = Token::Kind::String;
    char quote = text_[i_++];
    std::string s;
    for (;;) {
      if (i_ >= text_.size()) fail(t.position, "unterminated string");
      char c = text_[i_++];
      if (c == quote) break;
      if (c == '%' && i_ < text_.size() && text_[i_] == '%') {
        ++i_;
        s.push_back('%');
        continue;
      }
      if (c != '\\') {
        s.push_back(c);
        continue;
      }
      if (i_ >= text_.size()) fail(t.position, "unterminated string");
      char e = text_[i_++];
      switch (e) {
        case 'n':
          s.push_back('\n');
          break;
        case 't':
          s.push_back('\t');
          break;
        case 'r':
          s.push_back('\r');
          break;
        case '0':
          s.push_back('\0');
          break;
        case 'u': {
          char32_t code = 0;
          for (int k = 0; k < 4; ++k) {
            int d = i_ < text_.size() ? hexDigit(text_[i_]) : -1;
            if (d < 0) fail(i_, "expected four hexadecimal digits after \\u");
            code = code * 16 + static_cast<char32_t>(d);
            ++i_;
          }
          appendUtf8(code, &s);
          break;
        }
        default:
          s.push_back(e);
          break;  // \\, \", \' and any other character as itself
      }
    }
    t.value = Value::string(s);
    return t;
  }

  Token directive(Token& t) {
    t.kind = Token::Kind::Argument;
    ++i_;
    auto at = [&](size_t k) { return i_ + k < text_.size() ? text_[i_ + k] : '\0'; };
    char c = at(0);
    if (c == '@' || c == 'K') {
      t.text = std::string(1, c);
      ++i_;
    } else if (c == 'd' || c == 'i' || c == 'u') {
      t.text = "d";
      ++i_;
    } else if (c == 'f' || c == 'g' || c == 'e') {
      t.text = "f";
      ++i_;
    } else if (c == 'l') {
      size_t k = at(1) == 'l' ? 2 : 1;
      char type = at(k);
      if (type == 'd' || type == 'i' || type == 'u') {
        t.text = "d";
      } else if (type == 'f' && k == 1) {
        t.text = "f";
      } else {
        fail(t.position, "unknown format directive");
      }
      i_ += k + 1;
    } else if (c == '%') {
      fail(t.position, "a literal %% belongs inside a quoted string");
    } else {
      fail(t.position, "unknown format directive");
    }
    return t;
  }

  Token op(Token& t) {
    t.kind = Token::Kind::Operator;
    char c = text_[i_];
    char d = i_ + 1 < text_.size() ? text_[i_ + 1] : '\0';
    auto take = [&](size_t n, const char* text) {
      i_ += n;
      t.text = text;
      return t;
    };
    switch (c) {
      case '=':
        if (d == '=') return take(2, "==");
        if (d == '<') return take(2, "<=");
        if (d == '>') return take(2, ">=");
        return take(1, "==");
      case '!':
        return d == '=' ? take(2, "!=") : take(1, "!");
      case '<':
        if (d == '=') return take(2, "<=");
        if (d == '>') return take(2, "!=");
        return take(1, "<");
      case '>':
        return d == '=' ? take(2, ">=") : take(1, ">");
      case '&':
        if (d == '&') return take(2, "&&");
        break;
      case '|':
        if (d == '|') return take(2, "||");
        break;
      case '-':
        return take(1, "-");
      default:
        break;
    }
    fail(t.position, std::string("unexpected character '") + c + "'");
  }

  std::string_view text_;
  size_t i_ = 0;
};

class Parser {
 public:
  Parser(std::string_view text, std::span<const Value> arguments)
      : lexer_(text), arguments_(arguments) {
    current_ = lexer_.next();
  }

  NodePtr parseAll() {
    NodePtr node = parseOr(0);
    if (current_.kind != Token::Kind::End) fail(current_.position, "unexpected text");
    return node;
  }

 private:
  using Kind = Token::Kind;

  [[noreturn]] static void fail(size_t position, std::string reason) {
    Lexer::fail(position, std::move(reason));
  }

  Token advance() {
    Token t = std::move(current_);
    current_ = lexer_.next();
    return t;
  }

  bool atKeyword(std::string_view word) const {
    return current_.kind == Kind::Identifier && !current_.escaped &&
           equalsIgnoringCase(current_.text, word);
  }
  bool atOperator(std::string_view text) const {
    return current_.kind == Kind::Operator && current_.text == text;
  }

  void expect(Kind kind, const char* what) {
    if (current_.kind != kind) fail(current_.position, std::string("expected ") + what);
    advance();
  }

  static void checkDepth(int depth, size_t position) {
    if (depth >= kMaxNesting) fail(position, "nesting too deep");
  }

  NodePtr parseOr(int depth) {
    std::vector<NodePtr> children{parseAnd(depth)};
    while (atKeyword("OR") || atOperator("||")) {
      advance();
      children.push_back(parseAnd(depth));
    }
    return children.size() == 1 ? children[0] : makeCompound(Node::Type::Or, std::move(children));
  }

  NodePtr parseAnd(int depth) {
    std::vector<NodePtr> children{parseNot(depth)};
    while (atKeyword("AND") || atOperator("&&")) {
      advance();
      children.push_back(parseNot(depth));
    }
    return children.size() == 1 ? children[0] : makeCompound(Node::Type::And, std::move(children));
  }

  NodePtr parseNot(int depth) {
    if (atKeyword("NOT") || atOperator("!")) {
      checkDepth(depth, current_.position);
      advance();
      return makeCompound(Node::Type::Not, {parseNot(depth + 1)});
    }
    return parsePrimary(depth);
  }

  NodePtr parsePrimary(int depth) {
    if (current_.kind == Kind::LParen) {
      checkDepth(depth, current_.position);
      advance();
      NodePtr inner = parseOr(depth + 1);
      expect(Kind::RParen, "')'");
      return inner;
    }
    if (atKeyword("TRUEPREDICATE")) {
      advance();
      return makeConstantNode(true);
    }
    if (atKeyword("FALSEPREDICATE")) {
      advance();
      return makeConstantNode(false);
    }
    return parseComparison(depth);
  }

  NodePtr parseComparison(int depth) {
    Modifier modifier = Modifier::Direct;
    if (atKeyword("ANY") || atKeyword("SOME")) {
      modifier = Modifier::Any;
    } else if (atKeyword("ALL")) {
      modifier = Modifier::All;
    } else if (atKeyword("NONE")) {
      modifier = Modifier::None;
    }
    if (modifier != Modifier::Direct) advance();
    Expression lhs = parseExpression(depth);
    size_t opPosition = current_.position;
    Operator op = parseOperator();
    FoldOptions options = parseOptions();
    size_t rhsPosition = current_.position;
    Expression rhs = parseExpression(depth);
    if (op == Operator::Between) {
      bool twoElements = (rhs.type == Expression::Type::Aggregate && rhs.elements.size() == 2) ||
                         (rhs.type == Expression::Type::Constant && rhs.constant.isSequence() &&
                          rhs.constant.size() == 2) ||
                         rhs.type == Expression::Type::Variable;
      if (!twoElements) fail(rhsPosition, "BETWEEN needs a collection of two bounds");
    }
    (void)opPosition;
    return makeComparison(modifier, std::move(lhs), op, options, std::move(rhs));
  }

  Operator parseOperator() {
    if (current_.kind == Kind::Operator) {
      static constexpr std::pair<std::string_view, Operator> kSymbols[] = {
          {"==", Operator::Equal},  {"!=", Operator::NotEqual},
          {"<", Operator::Less},    {"<=", Operator::LessOrEqual},
          {">", Operator::Greater}, {">=", Operator::GreaterOrEqual}};
      for (const auto& [text, op] : kSymbols) {
        if (current_.text == text) {
          advance();
          return op;
        }
      }
    } else if (current_.kind == Kind::Identifier && !current_.escaped) {
      static constexpr std::pair<std::string_view, Operator> kWords[] = {
          {"BETWEEN", Operator::Between},
          {"BEGINSWITH", Operator::BeginsWith},
          {"ENDSWITH", Operator::EndsWith},
          {"CONTAINS", Operator::Contains},
          {"LIKE", Operator::Like},
          {"MATCHES", Operator::Matches},
          {"IN", Operator::In}};
      for (const auto& [text, op] : kWords) {
        if (equalsIgnoringCase(current_.text, text)) {
          advance();
          return op;
        }
      }
    }
    fail(current_.position, "expected a comparison operator");
  }

  FoldOptions parseOptions() {
    FoldOptions options;
    if (current_.kind != Kind::LBracket) return options;
    advance();
    if (current_.kind != Kind::Identifier || current_.escaped) {
      fail(current_.position, "expected comparison options such as [c], [d] or [cd]");
    }
    for (char c : current_.text) {
      if (c == 'c') {
        options.caseInsensitive = true;
      } else if (c == 'd') {
        options.diacriticInsensitive = true;
      } else if (c != 'n') {  // [n]: normalized text, which ours always is
        fail(current_.position, std::string("unknown comparison option '") + c + "'");
      }
    }
    advance();
    expect(Kind::RBracket, "']'");
    return options;
  }

  const Value& takeArgument(size_t position) {
    if (nextArgument_ >= arguments_.size())
      fail(position, "missing argument for a format directive");
    return arguments_[nextArgument_++];
  }

  Expression parseExpression(int depth) {
    Token t = advance();
    switch (t.kind) {
      case Kind::String:
      case Kind::Number:
        return Expression::makeConstant(t.value);
      case Kind::Operator:
        if (t.text == "-" && current_.kind == Kind::Number) {
          Value n = advance().value;
          if (n.isInteger()) return Expression::makeConstant(Value::integer(-n.intValue()));
          return Expression::makeConstant(Value::float64(-n.doubleValue()));
        }
        break;
      case Kind::Argument:
        return argumentExpression(t);
      case Kind::Variable:
        return Expression::makeVariable(t.text);
      case Kind::LBrace:
        return aggregate(t, depth);
      case Kind::AtIdentifier:
        return keyPathFrom(t.text);
      case Kind::Identifier: {
        if (t.escaped) return keyPathFrom(std::string(selfSpelled(t.text)));
        if (equalsIgnoringCase(t.text, "YES") || equalsIgnoringCase(t.text, "TRUE")) {
          return Expression::makeConstant(Value::boolean(true));
        }
        if (equalsIgnoringCase(t.text, "NO") || equalsIgnoringCase(t.text, "FALSE")) {
          return Expression::makeConstant(Value::boolean(false));
        }
        if (equalsIgnoringCase(t.text, "NIL") || equalsIgnoringCase(t.text, "NULL")) {
          return Expression::makeConstant(Value::null());
        }
        if (equalsIgnoringCase(t.text, "SELF")) return keyPathFrom("SELF");
        if (equalsIgnoringCase(t.text, "CAST")) return cast(t, depth);
        if (isReservedWord(t.text)) {
          fail(t.position, "unexpected keyword '" + t.text + "' (escape a key with '#')");
        }
        return keyPathFrom(t.text);
      }
      default:
        break;
    }
    fail(t.position,
         t.kind == Kind::End ? "unexpected end, expected an expression" : "expected an expression");
  }

  // Key paths read "self" and "SELF" alike; one spelling keeps equal
  // predicates equal once written and read back.
  static std::string_view selfSpelled(std::string_view key) {
    return key == "self" ? std::string_view("SELF") : key;
  }

  Expression keyPathFrom(std::string path) {
    while (current_.kind == Kind::Dot) {
      advance();
      if (current_.kind != Kind::Identifier && current_.kind != Kind::AtIdentifier) {
        fail(current_.position, "expected a key after '.'");
      }
      const Token key = advance();
      path += ".";
      path += selfSpelled(key.text);
    }
    return Expression::makeKeyPath(path);
  }

  Expression argumentExpression(const Token& t) {
    const Value& argument = takeArgument(t.position);
    if (t.text == "@") return Expression::makeConstant(argument);
    if (t.text == "K") {
      if (!argument.isString()) fail(t.position, "%K needs a string argument");
      return Expression::makeKeyPath(argument.str());
    }
    if (!argument.isNumber()) fail(t.position, "%" + t.text + " needs a number argument");
    if (t.text == "d") return Expression::makeConstant(Value::integer(argument.intValue()));
    return Expression::makeConstant(Value::float64(argument.doubleValue()));
  }

  Expression aggregate(const Token& open, int depth) {
    checkDepth(depth, open.position);
    Expression e;
    e.type = Expression::Type::Aggregate;
    if (current_.kind != Kind::RBrace) {
      for (;;) {
        e.elements.push_back(parseExpression(depth + 1));
        if (current_.kind != Kind::Comma) break;
        advance();
      }
    }
    expect(Kind::RBrace, "',' or '}'");
    bool allConstant = true;
    for (const auto& element : e.elements) {
      allConstant = allConstant && element.type == Expression::Type::Constant;
    }
    if (!allConstant) return e;
    Value array = Value::array();
    for (auto& element : e.elements) array.append(element.constant);
    return Expression::makeConstant(array);
  }

  // CAST(value, "NSDate") and CAST(value, "NSNumber"): how dates are written.
  Expression cast(const Token& t, int depth) {
    expect(Kind::LParen, "'(' after CAST");
    Expression value = parseExpression(depth + 1);
    expect(Kind::Comma, "','");
    Token type = advance();
    expect(Kind::RParen, "')'");
    if (value.type != Expression::Type::Constant || type.kind != Kind::String) {
      fail(t.position, "CAST needs a constant and a quoted class name");
    }
    if (type.value.str() == "NSDate" && value.constant.isNumber()) {
      return Expression::makeConstant(Value::date(value.constant.doubleValue()));
    }
    if (type.value.str() == "NSNumber") {
      if (value.constant.isNumber()) return value;
      if (value.constant.isString()) {
        std::string s(value.constant.str());
        char* end = nullptr;
        double d = std::strtod(s.c_str(), &end);
        if (!s.empty() && end == s.c_str() + s.size()) return Expression::makeConstant(Value(d));
      }
    }
    fail(t.position, "unsupported CAST");
  }

  Lexer lexer_;
  Token current_;
  std::span<const Value> arguments_;
  size_t nextArgument_ = 0;
};

// The character (code point) index of a byte offset.
size_t characterPosition(std::string_view text, size_t byteOffset) {
  size_t n = 0;
  for (size_t i = 0; i < byteOffset && i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++n;
  }
  return n;
}

}  // namespace

NodePtr parse(std::string_view format, std::span<const Value> arguments, Error* error) {
  try {
    Parser parser(format, arguments);
    return parser.parseAll();
  } catch (const ParseFailure& failure) {
    if (error) {
      std::string description = "Unable to parse the format string at position " +
                                std::to_string(characterPosition(format, failure.position)) + ": " +
                                failure.reason;
      *error = Error::withDescription(std::string(kCocoaErrorDomain), kParseErrorCode, description);
    }
    return nullptr;
  }
}

}  // namespace quillon::predicate_internal
