#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class ManagedObject;
class QuillonChange;
class QuillonStore;

// What managed objects gain for the store: writing their object record
// "Entities/<entity key>/<uid>/<change file name>" (and binary values into
// "Data/"), anonymisation for exports, and per-object cache scratch values.
// Called on the saving context's thread.

// Builds the object's record, writes its data files at once, reports it to
// the change and enqueues the record's write on the target's save queue.
// Full records when source ≠ target or the target has
// kRemoveUbiquitousMetadataOption; incremental otherwise.
void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                   QuillonChange* change, const Value& options, std::string_view type);
// The short forms.
void saveToStore(ManagedObject& object, QuillonStore* store, std::string_view type);
void saveToStoreWithChange(ManagedObject& object, QuillonStore* store, QuillonChange* change,
                           std::string_view type);
// The target argument is ignored (the source store receives the record).
void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                   std::string_view type);
void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                   QuillonChange* change, std::string_view type);

// The names of the properties whose values differ from the committed ones,
// in property order, cleared ones included (changedValues() cannot hold an
// absent value, so it leaves those out).
std::vector<std::string> quillonChangedKeys(ManagedObject& object);

// The anonymisation rule for the object's entity and property applied to a value.
Value applyOptions(const ManagedObject& object, const Value& options, const Value& value,
                   std::string_view key);
// The object's folder in the target store.
Url URLForStore(ManagedObject& object, QuillonStore* target, QuillonStore* source);
// Per-object scratch values kept in the local cache, never in the package.
Value quillonCacheValueForKey(const ManagedObject& object, const std::string& key);
void setQuillonCacheValue(const ManagedObject& object, const Value& value, const std::string& key);
void quillonResetCacheValues(const ManagedObject& object);
// The absolute text of the object's URI.
std::string QuillonURL(const ManagedObject& object);

// Where "replace" anonymisation rules find the host's resource files (a
// folder); empty: no resources, such rules give an absent value.
void setQuillonResourceDirectory(std::string path);

}  // namespace quillon
