// Feeds arbitrary bytes to the change-file reader as a file in a package's
// "Changes" folder, plain or sealed with the package's password. What the
// reader accepts must name only paths inside the package: every entity,
// uid and data file name of it goes through the package layout here, as the
// cache and the merge later do.
//
// Input: one byte of flags (1: seal the rest with the package's cipher,
// 2: read with the password), then the file's bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/package_layout.h"

namespace {

using quillon::Url;
using quillon::Value;

constexpr std::string_view kName = "2026-03-05-17-42-09.318.6F9619FF-8B86-D011-B42D-00C04FC964FF";

const quillon::fuzz::ScratchPackage& package() {
  static const quillon::fuzz::ScratchPackage p =
      quillon::fuzz::makeScratchPackage("Changes.quillon");
  return p;
}

bool inside(const std::optional<Url>& url, const std::string& folder) {
  if (!url) return true;  // refused: nothing to check
  std::string path = url->path();
  if (path.compare(0, folder.size(), folder) != 0) return false;
  for (const std::string& component : url->pathComponents()) {
    if (component == "..") return false;
  }
  return true;
}

void checkObjects(const quillon::PackageLayout& layout, const Value& objects) {
  const std::string entities = layout.entities().path() + "/";
  for (const auto& [entity, uids] : objects.items()) {
    for (const auto& [uid, entry] : uids.items()) {
      auto folder = layout.objectFolder(entity.str(), uid.str());
      // The check promised usable names: the layout must agree.
      if (!folder || !inside(folder, entities)) std::abort();
      if (!inside(layout.record(entity.str(), uid.str(), kName), entities)) std::abort();
      for (const auto& [key, records] : entry.items()) {
        for (const Value& record : records.elements()) {
          auto file = layout.dataFile(entity.str(), uid.str(), record.get("name").str());
          if (!file || !inside(file, entities)) std::abort();
        }
      }
    }
  }
}

void checkAccepted(const Value& change) {
  quillon::PackageLayout layout(package().url);
  if (!quillon::changeFileProblem(change, std::string(kName) + ".json").empty()) std::abort();
  const Value& previous = change.get(quillon::kChangePreviousNameKey);
  if (previous.isString() && !layout.changeFile(previous.str())) std::abort();
  for (std::string_view key : {quillon::kChangeChangesKey, quillon::kChangeRefreshesKey}) {
    for (const auto& [type, objects] : change.get(key).items()) {
      if (type.str() == quillon::kChangeInsertKey || type.str() == quillon::kChangeUpdateKey ||
          type.str() == quillon::kChangeDeleteKey) {
        checkObjects(layout, objects);
      }
    }
  }
  for (std::string_view key :
       {quillon::kChangeInsertsKey, quillon::kChangeUpdatesKey, quillon::kChangeDeletesKey}) {
    checkObjects(layout, change.get(key));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto& p = package();
  const uint8_t flags = data[0];
  std::span<const uint8_t> contents(data + 1, size - 1);

  std::vector<uint8_t> stored(contents.begin(), contents.end());
  if ((flags & 1) && !p.sealed->seal(contents, &stored)) std::abort();
  const std::string fileName = std::string(kName) + ".json";
  const std::string path = p.url.appending("Changes", true).appending(fileName).path();
  quillon::fuzz::writeScratchFile(path, stored);

  quillon::PackageFiles& files = (flags & 2) ? *p.sealed : *p.plain;
  Value change;
  quillon::ChangeFileReading reading = quillon::readChangeFile(files, path, fileName, &change);
  switch (reading.outcome) {
    case quillon::ChangeFileReading::kRead:
      if (!reading.problem.empty()) std::abort();
      checkAccepted(change);
      break;
    case quillon::ChangeFileReading::kInvalid:
      if (reading.problem.empty() || !change.isNil()) std::abort();
      break;
    default:
      if (!change.isNil()) std::abort();
      break;
  }
  // Sealed and read with the password, the content reads as it would plain.
  if ((flags & 3) == 3) {
    quillon::fuzz::writeScratchFile(path, contents);
    Value plainChange;
    auto plainReading = quillon::readChangeFile(*p.plain, path, fileName, &plainChange);
    if (plainReading.outcome != reading.outcome && !contents.empty()) std::abort();
    if (!(plainChange == change)) std::abort();
  }
  return 0;
}
