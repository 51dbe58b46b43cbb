#pragma once

#include <string>

namespace quillon {

class ManagedObject;
class ManagedObjectID;

// The uid of an identifier: its cached uid, else the uid of its reference
// (storeUID of the text), else a fresh UUID; cached on the identifier.
std::string storeUID(const ManagedObjectID& objectID);
std::string storeUID(const ManagedObject& object);
// "Entity/UID".
std::string storeSavePath(const ManagedObjectID& objectID);

}  // namespace quillon
