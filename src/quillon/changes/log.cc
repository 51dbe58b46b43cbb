#include <string>
#include <string_view>

#include "quillon/store/store.h"

namespace quillon {

// PENDING
void QuillonStore::log(const std::string&, std::string_view, const Value&) {}
// PENDING
void QuillonStore::log(const std::string&) {}
// PENDING
Value QuillonStore::logEntries() const { return Value(); }
// PENDING
void QuillonStore::refreshLog() {}
// PENDING
void QuillonStore::logError(const Error&, const std::string&) {}
// PENDING
void QuillonStore::logErrorString(const std::string&, const std::string&) {}
// PENDING
void QuillonStore::setErrorLevel(std::string_view) {}
// PENDING
std::string QuillonStore::errorLevel() const { return {}; }
// PENDING
Value QuillonStore::errorsArray() { return Value(); }
// PENDING
Value QuillonStore::recentErrorsArray() { return Value(); }
// PENDING
Value QuillonStore::peformanceArray() const { return Value(); }
// PENDING
Value QuillonStore::sessionDictionary() const { return Value(); }
// PENDING
Value QuillonStore::sessionInfo() { return Value(); }
// PENDING
std::string QuillonStore::checkSum() { return {}; }
// PENDING
Value QuillonStore::infoArrayForContext(ManagedObjectContext*) { return Value(); }
// PENDING
void QuillonStore::fixSyncConflicts() {}

}  // namespace quillon
