// GCC 12 reports false "may be used uninitialized" warnings inside <regex>
// when building with sanitizers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "quillon/graph/managed_object_model.h"

#include <fmt/format.h>
#include <simdjson.h>

#include <functional>
#include <set>

namespace quillon {

// ---- EntityDescription --------------------------------------------------------

std::vector<const EntityDescription*> EntityDescription::allSubentities() const {
  std::vector<const EntityDescription*> result;
  std::function<void(const EntityDescription*)> walk = [&](const EntityDescription* e) {
    for (const EntityDescription* sub : e->subentities_) {
      result.push_back(sub);
      walk(sub);
    }
  };
  walk(this);
  return result;
}

int EntityDescription::indexOfProperty(std::string_view name) const {
  auto it = indexByName_.find(name);
  return it == indexByName_.end() ? -1 : it->second;
}

const PropertyDescription* EntityDescription::property(std::string_view name) const {
  int i = indexOfProperty(name);
  return i < 0 ? nullptr : properties_[static_cast<size_t>(i)];
}

const AttributeDescription* EntityDescription::attribute(std::string_view name) const {
  auto it = attributesByName_.find(name);
  return it == attributesByName_.end() ? nullptr : it->second;
}

const RelationshipDescription* EntityDescription::relationship(std::string_view name) const {
  auto it = relationshipsByName_.find(name);
  return it == relationshipsByName_.end() ? nullptr : it->second;
}

bool EntityDescription::isKindOfEntity(const EntityDescription* other) const {
  for (const EntityDescription* e = this; e; e = e->superentity_) {
    if (e == other) return true;
  }
  return false;
}

std::string_view deleteRuleName(DeleteRule rule) {
  switch (rule) {
    case DeleteRule::NoAction:
      return "noAction";
    case DeleteRule::Nullify:
      return "nullify";
    case DeleteRule::Cascade:
      return "cascade";
    case DeleteRule::Deny:
      return "deny";
  }
  return "nullify";
}

std::optional<DeleteRule> deleteRuleFromName(std::string_view name) {
  if (name == "nullify") return DeleteRule::Nullify;
  if (name == "cascade") return DeleteRule::Cascade;
  if (name == "deny") return DeleteRule::Deny;
  if (name == "noAction" || name == "no action" || name == "none") return DeleteRule::NoAction;
  return std::nullopt;
}

// ---- Model file parsing -----------------------------------------------------

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

std::string_view typeName(element_type t) {
  switch (t) {
    case element_type::ARRAY:
      return "an array";
    case element_type::OBJECT:
      return "an object";
    case element_type::INT64:
    case element_type::UINT64:
    case element_type::DOUBLE:
      return "a number";
    case element_type::STRING:
      return "a string";
    case element_type::BOOL:
      return "a boolean";
    case element_type::NULL_VALUE:
      return "null";
  }
  return "a value";
}

// A JSON scalar as a Value (containers are not model values).
std::optional<Value> scalarValue(element e) {
  switch (e.type()) {
    case element_type::INT64:
      return Value::integer(int64_t(e));
    case element_type::UINT64:
      return Value::float64(double(uint64_t(e)));
    case element_type::DOUBLE:
      return Value::float64(double(e));
    case element_type::STRING:
      return Value::string(std::string_view(e));
    case element_type::BOOL:
      return Value::boolean(bool(e));
    case element_type::NULL_VALUE:
      return Value();
    default:
      return std::nullopt;
  }
}

}  // namespace

class ManagedObjectModel::Parser {
 public:
  explicit Parser(ManagedObjectModel* model) : model_(model) {}

  bool parse(std::string_view text) {
    simdjson::dom::parser parser;
    simdjson::padded_string padded(text);
    element root;
    if (auto err = parser.parse(padded).get(root); err) {
      return fail(
          "", "",
          fmt::format("the model file is not valid JSON ({})", simdjson::error_message(err)));
    }
    if (root.type() != element_type::OBJECT) return fail("", "", "the model file is not an object");
    element entities;
    if (root.at_key("entities").get(entities) || entities.type() != element_type::ARRAY) {
      return fail("", "", "the model file has no \"entities\" array");
    }
    for (element e : simdjson::dom::array(entities)) {
      if (!parseEntity(e)) return false;
    }
    return linkParents() && buildPropertyLists() && linkRelationships();
  }

  std::string message;
  std::string entityName;
  std::string propertyName;

 private:
  struct PendingRelationship {
    RelationshipDescription* relationship;
    std::string destination;
    std::string inverse;
  };

  bool fail(std::string_view entity, std::string_view property, std::string text) {
    entityName = entity;
    propertyName = property;
    if (!entity.empty() && !property.empty()) {
      message =
          fmt::format("Invalid model: entity \"{}\", property \"{}\": {}", entity, property, text);
    } else if (!entity.empty()) {
      message = fmt::format("Invalid model: entity \"{}\": {}", entity, text);
    } else {
      message = fmt::format("Invalid model: {}", text);
    }
    return false;
  }

  // Reads an optional member of the expected JSON type; false (with the
  // failure recorded) when it is present with another type.
  bool member(object o, std::string_view key, element_type want, element* out, bool* present,
              std::string_view entity, std::string_view property) {
    *present = false;
    element e;
    if (o.at_key(key).get(e)) return true;
    bool ok = e.type() == want || (want == element_type::INT64 && e.type() == element_type::UINT64);
    if (!ok) {
      return fail(
          entity, property,
          fmt::format("\"{}\" must be {}, not {}", key, typeName(want), typeName(e.type())));
    }
    *out = e;
    *present = true;
    return true;
  }

  bool stringMember(object o, std::string_view key, std::string* out, bool* present,
                    std::string_view entity, std::string_view property, bool nullable = false) {
    element e;
    *present = false;
    if (o.at_key(key).get(e)) return true;
    if (nullable && e.type() == element_type::NULL_VALUE) return true;
    if (e.type() != element_type::STRING) {
      return fail(entity, property,
                  fmt::format("\"{}\" must be a string, not {}", key, typeName(e.type())));
    }
    *out = std::string(std::string_view(e));
    *present = true;
    return true;
  }

  bool boolMember(object o, std::string_view key, bool fallback, bool* out, std::string_view entity,
                  std::string_view property) {
    element e;
    bool present;
    if (!member(o, key, element_type::BOOL, &e, &present, entity, property)) return false;
    *out = present ? bool(e) : fallback;
    return true;
  }

  bool countMember(object o, std::string_view key, uint64_t* out, std::string_view entity,
                   std::string_view property) {
    element e;
    if (o.at_key(key).get(e)) return true;
    if (e.type() == element_type::INT64 && int64_t(e) >= 0) {
      *out = uint64_t(int64_t(e));
      return true;
    }
    if (e.type() == element_type::UINT64) {
      *out = uint64_t(e);
      return true;
    }
    return fail(entity, property, fmt::format("\"{}\" must be a non-negative whole number", key));
  }

  bool parseEntity(element e) {
    if (e.type() != element_type::OBJECT) return fail("", "", "an entity is not an object");
    object o(e);
    std::string name;
    bool present;
    if (!stringMember(o, "name", &name, &present, "", "")) return false;
    if (!present || name.empty()) return fail("", "", "an entity has no name");
    if (model_->entitiesByName_.count(name)) return fail(name, "", "the entity name is used twice");
    auto entity = std::make_unique<EntityDescription>(name, model_);
    EntityDescription* ent = entity.get();
    model_->entitiesByName_[name] = ent;
    model_->entityList_.push_back(ent);
    model_->entities_.push_back(std::move(entity));

    std::string parent;
    if (!stringMember(o, "parent", &parent, &present, name, "", true)) return false;
    parents_.push_back(present ? parent : std::string());
    if (!boolMember(o, "abstract", false, &ent->abstract_, name, "")) return false;

    element list;
    if (!member(o, "attributes", element_type::ARRAY, &list, &present, name, "")) return false;
    if (present) {
      for (element a : simdjson::dom::array(list)) {
        if (!parseAttribute(ent, a)) return false;
      }
    }
    if (!member(o, "relationships", element_type::ARRAY, &list, &present, name, "")) return false;
    if (present) {
      for (element r : simdjson::dom::array(list)) {
        if (!parseRelationship(ent, r)) return false;
      }
    }
    return true;
  }

  bool propertyName_(EntityDescription* ent, object o, std::string* name) {
    bool present;
    if (!stringMember(o, "name", name, &present, ent->name(), "")) return false;
    if (!present || name->empty()) return fail(ent->name(), "", "a property has no name");
    for (const auto& p : ent->ownProperties_) {
      if (p->name() == *name) return fail(ent->name(), *name, "the property name is used twice");
    }
    return true;
  }

  bool parseAttribute(EntityDescription* ent, element e) {
    if (e.type() != element_type::OBJECT)
      return fail(ent->name(), "", "an attribute is not an object");
    object o(e);
    std::string name;
    if (!propertyName_(ent, o, &name)) return false;
    std::string typeText;
    bool present;
    if (!stringMember(o, "type", &typeText, &present, ent->name(), name)) return false;
    if (!present) return fail(ent->name(), name, "the attribute has no type");
    auto type = attributeTypeFromName(typeText);
    if (!type)
      return fail(ent->name(), name, fmt::format("unknown attribute type \"{}\"", typeText));
    bool optional;
    if (!boolMember(o, "optional", true, &optional, ent->name(), name)) return false;
    auto attr = std::make_unique<AttributeDescription>(name, ent, optional, *type, Value());

    auto checkedValue = [&](std::string_view key, Value* out) -> bool {
      element v;
      if (o.at_key(key).get(v)) return true;
      auto scalar = scalarValue(v);
      if (!scalar) return fail(ent->name(), name, fmt::format("\"{}\" must be a plain value", key));
      if (*type == AttributeType::Date && scalar->isNumber()) {
        *scalar = Value::date(scalar->doubleValue());
      }
      Error error;
      if (key != "default" && *type == AttributeType::String) {
        // String limits are lengths.
        if (!scalar->isNil() && !(scalar->isNumber() && scalar->doubleValue() >= 0)) {
          return fail(ent->name(), name, fmt::format("\"{}\" must be a length", key));
        }
        *out = *scalar;
        return true;
      }
      if (!attr->acceptValue(*scalar, out, &error)) {
        return fail(ent->name(), name,
                    fmt::format("\"{}\" does not suit the attribute type {}", key, typeText));
      }
      return true;
    };
    if (!checkedValue("default", &attr->defaultValue_)) return false;
    if (!checkedValue("minValue", &attr->minValue_)) return false;
    if (!checkedValue("maxValue", &attr->maxValue_)) return false;
    if (!stringMember(o, "regularExpression", &attr->pattern_, &present, ent->name(), name, true)) {
      return false;
    }
    if (present) {
      try {
        attr->regex_.emplace(attr->pattern_, std::regex::ECMAScript);
      } catch (const std::regex_error&) {
        return fail(ent->name(), name, "the regular expression is malformed");
      }
    }
    if (!stringMember(o, "transformer", &attr->valueTransformerName_, &present, ent->name(), name,
                      true)) {
      return false;
    }
    ent->ownProperties_.push_back(std::move(attr));
    return true;
  }

  bool parseRelationship(EntityDescription* ent, element e) {
    if (e.type() != element_type::OBJECT) {
      return fail(ent->name(), "", "a relationship is not an object");
    }
    object o(e);
    std::string name;
    if (!propertyName_(ent, o, &name)) return false;
    bool optional;
    if (!boolMember(o, "optional", true, &optional, ent->name(), name)) return false;
    auto rel = std::make_unique<RelationshipDescription>(name, ent, optional);
    PendingRelationship pending{rel.get(), {}, {}};
    bool present;
    if (!stringMember(o, "destination", &pending.destination, &present, ent->name(), name)) {
      return false;
    }
    if (!present) return fail(ent->name(), name, "the relationship has no destination");
    if (!stringMember(o, "inverse", &pending.inverse, &present, ent->name(), name, true))
      return false;
    if (!boolMember(o, "toMany", false, &rel->toMany_, ent->name(), name)) return false;
    if (!boolMember(o, "ordered", false, &rel->ordered_, ent->name(), name)) return false;
    if (!rel->toMany_) rel->ordered_ = false;
    std::string rule;
    if (!stringMember(o, "deleteRule", &rule, &present, ent->name(), name, true)) return false;
    if (present) {
      auto parsed = deleteRuleFromName(rule);
      if (!parsed) return fail(ent->name(), name, fmt::format("unknown delete rule \"{}\"", rule));
      rel->deleteRule_ = *parsed;
    }
    rel->maxCount_ = rel->toMany_ ? 0 : 1;
    if (rel->toMany_) {
      if (!countMember(o, "minCount", &rel->minCount_, ent->name(), name)) return false;
      if (!countMember(o, "maxCount", &rel->maxCount_, ent->name(), name)) return false;
      if (rel->maxCount_ != 0 && rel->minCount_ > rel->maxCount_) {
        return fail(ent->name(), name, "\"minCount\" is larger than \"maxCount\"");
      }
    }
    pending_.push_back(pending);
    ent->ownProperties_.push_back(std::move(rel));
    return true;
  }

  bool linkParents() {
    for (size_t i = 0; i < model_->entities_.size(); ++i) {
      EntityDescription* ent = model_->entities_[i].get();
      if (parents_[i].empty()) continue;
      auto it = model_->entitiesByName_.find(parents_[i]);
      if (it == model_->entitiesByName_.end()) {
        return fail(ent->name(), "",
                    fmt::format("the parent entity \"{}\" does not exist", parents_[i]));
      }
      ent->superentity_ = it->second;
    }
    for (const auto& ent : model_->entities_) {
      size_t steps = 0;
      for (const EntityDescription* e = ent->superentity_; e; e = e->superentity_) {
        if (e == ent.get() || ++steps > model_->entities_.size()) {
          return fail(ent->name(), "", "the entity inherits from itself");
        }
      }
      if (ent->superentity_) {
        const_cast<EntityDescription*>(ent->superentity_)->subentities_.push_back(ent.get());
      }
    }
    return true;
  }

  bool buildPropertyLists() {
    std::set<const EntityDescription*> done;
    std::function<bool(EntityDescription*)> build = [&](EntityDescription* ent) -> bool {
      if (done.count(ent)) return true;
      if (ent->superentity_) {
        auto* parent = const_cast<EntityDescription*>(ent->superentity_);
        if (!build(parent)) return false;
        ent->properties_ = parent->properties_;
      }
      for (const auto& p : ent->ownProperties_) {
        for (const PropertyDescription* inherited : ent->properties_) {
          if (inherited->name() == p->name()) {
            return fail(ent->name(), p->name(), "the property is already inherited from a parent");
          }
        }
        ent->properties_.push_back(p.get());
      }
      for (size_t i = 0; i < ent->properties_.size(); ++i) {
        const PropertyDescription* p = ent->properties_[i];
        ent->indexByName_[p->name()] = static_cast<int>(i);
        if (p->isAttribute()) {
          ent->attributesByName_[p->name()] = static_cast<const AttributeDescription*>(p);
        } else {
          ent->relationshipsByName_[p->name()] = static_cast<const RelationshipDescription*>(p);
        }
      }
      done.insert(ent);
      return true;
    };
    for (const auto& ent : model_->entities_) {
      if (!build(ent.get())) return false;
    }
    return true;
  }

  bool linkRelationships() {
    for (auto& p : pending_) {
      const EntityDescription* source = p.relationship->entity();
      auto it = model_->entitiesByName_.find(p.destination);
      if (it == model_->entitiesByName_.end()) {
        return fail(source->name(), p.relationship->name(),
                    fmt::format("the destination entity \"{}\" does not exist", p.destination));
      }
      p.relationship->destination_ = it->second;
    }
    for (auto& p : pending_) {
      if (p.inverse.empty()) continue;
      RelationshipDescription* rel = p.relationship;
      const EntityDescription* source = rel->entity();
      const RelationshipDescription* inverse = rel->destination_->relationship(p.inverse);
      auto broken = [&](std::string why) {
        return fail(
            source->name(), rel->name(),
            fmt::format("the inverse \"{}\" of {} {}", p.inverse, rel->destination_->name(), why));
      };
      if (!inverse) return broken("is not a relationship");
      if (!source->isKindOfEntity(inverse->destination_) &&
          !inverse->destination_->isKindOfEntity(source)) {
        return broken(
            fmt::format("leads to {}, not to {}", inverse->destination_->name(), source->name()));
      }
      std::string backName;
      for (const auto& q : pending_) {
        if (q.relationship == inverse) backName = q.inverse;
      }
      if (backName != rel->name()) {
        return broken(backName.empty() ? std::string("names no inverse")
                                       : fmt::format("names \"{}\" as its inverse", backName));
      }
      rel->inverse_ = inverse;
    }
    return true;
  }

  ManagedObjectModel* model_;
  std::vector<std::string> parents_;
  std::vector<PendingRelationship> pending_;
};

std::shared_ptr<const ManagedObjectModel> ManagedObjectModel::fromJSON(std::string_view text,
                                                                       Error* error) {
  std::shared_ptr<ManagedObjectModel> model(new ManagedObjectModel());
  Parser parser(model.get());
  if (!parser.parse(text)) {
    if (error) {
      Value info = Value::dictionary({{"NSLocalizedDescription", parser.message}}, true);
      if (!parser.entityName.empty()) info.set("entity", parser.entityName);
      if (!parser.propertyName.empty()) info.set("property", parser.propertyName);
      *error = Error("NSCocoaErrorDomain", kManagedObjectModelInvalidError, info);
    }
    return nullptr;
  }
  return model;
}

const EntityDescription* ManagedObjectModel::entity(std::string_view name) const {
  auto it = entitiesByName_.find(name);
  return it == entitiesByName_.end() ? nullptr : it->second;
}

}  // namespace quillon
