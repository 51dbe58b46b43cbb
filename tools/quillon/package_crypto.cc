// Opening files of an encrypted package: the key comes from the password and
// the "Encryption" entry (salt and rounds) of the package's Info.plist.

#include "quillon/base/plist.h"
#include "quillon/coding/sea_crypto.h"
#include "quillon/store/package_files.h"
#include "tool.h"

namespace quillon::tool {

std::vector<uint8_t> decryptPackageFile(const std::vector<uint8_t>& bytes,
                                        const std::string& packagePath, const std::string& password,
                                        const std::string& displayName) {
  const std::string infoPath = packagePath + "/Info.plist";
  Value info = readPropertyList(readWholeFile(infoPath));
  if (!info.isDictionary()) throw ToolError(infoPath + " is not a property list dictionary");
  const Value& encryption = info.get(kSeaCryptoEncryptionKey);
  if (!encryption.isDictionary()) {
    throw ToolError(packagePath + " is not encrypted: its Info.plist has no \"Encryption\" entry");
  }
  std::unique_ptr<SeaCrypto> cipher = PackageFiles::makeCipher(encryption, Value(password));
  if (!cipher) {
    throw ToolError("the \"Encryption\" entry of " + infoPath + " has no usable salt and rounds");
  }
  std::vector<uint8_t> plain;
  if (!cipher->decryptBytes(bytes, &plain)) {
    throw ToolError("cannot decrypt " + displayName + ": wrong password or damaged file");
  }
  return plain;
}

}  // namespace quillon::tool
