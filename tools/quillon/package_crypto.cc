// Opening files of an encrypted package: the key comes from the password and
// the "Encryption" entry (salt and rounds) of the package's Info.plist.

#include "quillon/base/env.h"
#include "quillon/base/url.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/store/package_files.h"
#include "tool.h"

namespace quillon::tool {

std::vector<uint8_t> decryptPackageFile(const std::vector<uint8_t>& bytes,
                                        const std::string& packagePath, const std::string& password,
                                        const std::string& displayName) {
  Env* env = PackageFiles::defaultEnv();
  const Url package = Url::fileURL(packagePath, true);
  const std::string infoPath = package.appending("Info.plist").path();
  FileAttributes attributes;
  if (Error error = env->attributes(infoPath, &attributes)) {
    throw ToolError("cannot read " + infoPath + ": " + error.localizedDescription());
  }
  Value info = PackageFiles::readInfo(env, package);
  if (!info.isDictionary()) throw ToolError(infoPath + " is not a property list dictionary");
  if (!info.get(kSeaCryptoEncryptionKey).isDictionary()) {
    throw ToolError(packagePath + " is not encrypted: its Info.plist has no \"Encryption\" entry");
  }
  PackageFiles files(env, package, Value(password));
  if (!files.cipherReady()) {
    throw ToolError("the \"Encryption\" entry of " + infoPath + " has no usable salt and rounds");
  }
  std::vector<uint8_t> plain;
  if (!files.open(bytes, &plain)) {
    throw ToolError("cannot decrypt " + displayName + ": wrong password or damaged file");
  }
  return plain;
}

}  // namespace quillon::tool
