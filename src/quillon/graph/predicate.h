#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

namespace predicate_internal {
struct Node;
class Program;
}

// A condition on a value, written in the classic predicate format language:
//
//   priority > 3 AND title BEGINSWITH[c] "a"
//   ANY tags.name IN {"work", "home"} OR notes.@count >= 2
//   created BETWEEN {%@, %@} AND NOT (title LIKE[cd] "draft*")
//
// Key paths resolve through valueForKeyPath(); comparisons between values of
// kinds that have no common order answer false, and a key path that leads
// nowhere answers nil, so evaluation never fails. The parsed form is
// immutable: a Predicate may be shared and evaluated on any thread.
class Predicate {
 public:
  // nullptr and *error (domain "NSCocoaErrorDomain", code 2048, description
  // naming the character position) on a syntax error. `arguments` are taken
  // in order by %@ (a value), %K (a key path), %d/%i/%ld (an integer) and %f
  // (a float).
  static std::shared_ptr<const Predicate> parse(std::string_view format,
                                                std::span<const Value> arguments = {},
                                                Error* error = nullptr);
  static std::shared_ptr<const Predicate> truePredicate();
  static std::shared_ptr<const Predicate> falsePredicate();
  // Compounds of existing predicates, as a fetch request combines them.
  static std::shared_ptr<const Predicate> andPredicate(
      std::span<const std::shared_ptr<const Predicate>> predicates);
  static std::shared_ptr<const Predicate> orPredicate(
      std::span<const std::shared_ptr<const Predicate>> predicates);
  static std::shared_ptr<const Predicate> notPredicate(std::shared_ptr<const Predicate> predicate);

  // `variables` (a dictionary) gives the values of $NAME; a variable it
  // lacks is nil.
  bool evaluate(const Value& object, const Value& variables = Value()) const;
  // The predicate with every $NAME that `variables` names replaced by its value.
  std::shared_ptr<const Predicate> withSubstitutionVariables(const Value& variables) const;
  // A canonical text that parses back to an equal predicate (for values that
  // have a literal form: numbers, strings, booleans, nil, dates, arrays).
  std::string format() const;

  // Structural equality: the same tree with equal constants.
  bool operator==(const Predicate& other) const;

  explicit Predicate(std::shared_ptr<const predicate_internal::Node> root);

 private:
  std::shared_ptr<const predicate_internal::Node> root_;
  // The tree prepared for evaluation; refers into root_.
  std::shared_ptr<const predicate_internal::Program> program_;
};

}  // namespace quillon
