#pragma once

#include "quillon/base/error.h"

namespace quillon {

class ManagedObject;
class RelationshipDescription;

// Repairs of objects whose relations a merge of several computers' changes
// left damaged: relations naming objects that another computer deleted, and
// relations whose two sides disagree. QuillonManagedObjectContext::save runs
// the validate-and-fix pair on every inserted and updated object first.
// Messages go to the system log, not to the store's log. The object's
// context's thread.

// Validates the object for insertion; when that fails, writes "Trying to
// heal inserted Object" to the system log and answers whether the failure
// could be repaired (see below).
bool qlValidateForInsertAndFix(ManagedObject& object);
// The same for an update ("Trying to heal updated Object").
bool qlValidateForUpdateAndFix(ManagedObject& object);

// Repairs the failure `error` reports when it is a 1550 validation error of
// the Cocoa domain naming an object and one of its relationships: a to-one
// relation is cleared, a to-many relation keeps only the members that are
// not deleted, still in a context and still in their store (an ordered one
// in its order). Several errors in one (1560) are repaired one by one.
// Answers false, changing nothing, for any other error.
bool qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(const Error& error);

// Makes both sides of every unordered relation of the object agree: members
// of a to-many relation whose inverse does not name the object are dropped
// ("Dead Relation in Entity->relation"), a to-one relation whose target's
// to-many inverse lacks the object is cleared, and a one-to-one pair whose
// back reference is missing is completed. Ordered relations are left alone.
void qlFixRelations(ManagedObject& object);

// Whether `receiver`'s `relationship` holds `object`: always true for an
// ordered to-many relation; set membership for an unordered one; identity
// of the target for a to-one relation.
bool qlCheckRelation(ManagedObject& receiver, const RelationshipDescription& relationship,
                     const ManagedObject& object);

}  // namespace quillon
