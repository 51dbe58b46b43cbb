#pragma once

// The names a package's files use on disk: folders, files and the keys of
// records, change files and Info.plist. Everything that reads or writes a
// package names them through these constants, so that the format is written
// down in one place.

#include <cstdint>
#include <string_view>

namespace quillon {

// ---- Folders and files of a package ----
inline constexpr std::string_view kPackageInfoFileName = "Info.plist";
inline constexpr std::string_view kPackageEntitiesFolder = "Entities";
inline constexpr std::string_view kPackageChangesFolder = "Changes";
inline constexpr std::string_view kPackageInvalidChangesFolder = "InvalidChanges";
inline constexpr std::string_view kPackageErrorsFolder = "Errors";
inline constexpr std::string_view kPackageCacheFolder = "Cache";
// The folder of an object's data files, beside its records.
inline constexpr std::string_view kPackageDataFolder = "Data";
inline constexpr std::string_view kChangeFileExtension = ".json";

// ---- Info.plist ----
inline constexpr std::string_view kInfoDocumentIdentifierKey = "DocumentIdentifier";
inline constexpr std::string_view kInfoDocumentInfoKey = "DocumentInfo";
inline constexpr std::string_view kInfoApplicationKey = "Application";
inline constexpr std::string_view kInfoFrameworkKey = "Quillon";
inline constexpr std::string_view kInfoDateCreationKey = "DateCreation";

// ---- Object records ----
inline constexpr std::string_view kRecordVersionKey = "version";
inline constexpr std::string_view kRecordTypeKey = "type";
inline constexpr std::string_view kRecordPayloadKey = "payload";

// ---- Change files ----
inline constexpr std::string_view kChangeNameKey = "name";
inline constexpr std::string_view kChangeDateKey = "date";
inline constexpr std::string_view kChangeChangesKey = "changes";
inline constexpr std::string_view kChangeSessionKey = "session";
inline constexpr std::string_view kChangePreviousNameKey = "previousName";
inline constexpr std::string_view kChangeTypeKey = "type";
inline constexpr std::string_view kChangeRefreshesKey = "refreshes";
// The value of "type" in recovery and placeholder changes.
inline constexpr std::string_view kChangeTypeRecovery = "recovery";
// The sections of "changes" and "refreshes".
inline constexpr std::string_view kChangeInsertKey = "insert";
inline constexpr std::string_view kChangeUpdateKey = "update";
inline constexpr std::string_view kChangeDeleteKey = "delete";
// Top-level object lists the cache reads back when a change is removed.
inline constexpr std::string_view kChangeInsertsKey = "inserts";
inline constexpr std::string_view kChangeUpdatesKey = "updates";
inline constexpr std::string_view kChangeDeletesKey = "deletes";
// A data record of a change entry.
inline constexpr std::string_view kDataRecordNameKey = "name";
inline constexpr std::string_view kDataRecordLengthKey = "length";
inline constexpr std::string_view kDataRecordHashKey = "hash";

// ---- Limits on what another computer may hand us ----
// Change files larger than this are refused before they are read.
inline constexpr uint64_t kMaximumChangeFileSize = uint64_t{64} << 20;
// Deeper JSON is refused; a change file needs about ten levels.
inline constexpr size_t kMaximumChangeFileDepth = 64;
// Records hold one object's values; binary values live in data files.
inline constexpr uint64_t kMaximumRecordFileSize = uint64_t{256} << 20;
inline constexpr size_t kMaximumRecordFileDepth = 256;

}  // namespace quillon
