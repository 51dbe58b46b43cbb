#include "quillon/graph/predicate.h"

#include "quillon/graph/internal/predicate_node.h"

namespace quillon {

using predicate_internal::Node;
using predicate_internal::NodePtr;

Predicate::Predicate(std::shared_ptr<const Node> root)
    : root_(std::move(root)), program_(std::make_shared<const predicate_internal::Program>(*root_)) {}

std::shared_ptr<const Predicate> Predicate::parse(std::string_view format,
                                                  std::span<const Value> arguments, Error* error) {
  NodePtr root = predicate_internal::parse(format, arguments, error);
  if (!root) return nullptr;
  return std::make_shared<const Predicate>(std::move(root));
}

std::shared_ptr<const Predicate> Predicate::truePredicate() {
  static const auto* truePredicate = new std::shared_ptr<const Predicate>(
      std::make_shared<const Predicate>(predicate_internal::makeConstantNode(true)));
  return *truePredicate;
}

std::shared_ptr<const Predicate> Predicate::falsePredicate() {
  static const auto* falsePredicate = new std::shared_ptr<const Predicate>(
      std::make_shared<const Predicate>(predicate_internal::makeConstantNode(false)));
  return *falsePredicate;
}

namespace {
std::shared_ptr<const Predicate> compound(Node::Type type, std::vector<NodePtr> roots) {
  return std::make_shared<const Predicate>(
      predicate_internal::makeCompound(type, std::move(roots)));
}
}  // namespace

std::shared_ptr<const Predicate> Predicate::andPredicate(
    std::span<const std::shared_ptr<const Predicate>> predicates) {
  std::vector<NodePtr> roots;
  for (const auto& p : predicates) roots.push_back(p->root_);
  if (roots.empty()) return truePredicate();
  return compound(Node::Type::And, std::move(roots));
}

std::shared_ptr<const Predicate> Predicate::orPredicate(
    std::span<const std::shared_ptr<const Predicate>> predicates) {
  std::vector<NodePtr> roots;
  for (const auto& p : predicates) roots.push_back(p->root_);
  if (roots.empty()) return falsePredicate();
  return compound(Node::Type::Or, std::move(roots));
}

std::shared_ptr<const Predicate> Predicate::notPredicate(
    std::shared_ptr<const Predicate> predicate) {
  return std::make_shared<const Predicate>(
      predicate_internal::makeCompound(Node::Type::Not, {predicate->root_}));
}

bool Predicate::evaluate(const Value& object, const Value& variables) const {
  return program_->evaluate(object, variables);
}

std::shared_ptr<const Predicate> Predicate::withSubstitutionVariables(
    const Value& variables) const {
  return std::make_shared<const Predicate>(predicate_internal::substitute(root_, variables));
}

std::string Predicate::format() const {
  std::string out;
  predicate_internal::format(*root_, &out);
  return out;
}

bool Predicate::operator==(const Predicate& other) const {
  return predicate_internal::equal(*root_, *other.root_);
}

}  // namespace quillon
