// Opening files of an encrypted package: the key comes from the password and
// the "Encryption" entry (salt and rounds) of the package's Info.plist.

#include "quillon/base/plist.h"
#include "quillon/coding/sea_crypto.h"
#include "tool.h"

namespace quillon::tool {

std::vector<uint8_t> decryptPackageFile(const std::vector<uint8_t>& bytes,
                                        const std::string& packagePath,
                                        const std::string& password,
                                        const std::string& displayName) {
  std::string infoPath = packagePath + "/Info.plist";
  std::vector<uint8_t> info = readWholeFile(infoPath);
  Error error;
  Value plist = readPropertyList(info, &error);
  if (!plist.isDictionary()) {
    throw ToolError(infoPath + " is not a property list dictionary");
  }
  const Value& encryption = plist.get(kSeaCryptoEncryptionKey);
  if (!encryption.isDictionary()) {
    throw ToolError(packagePath + " is not encrypted: its Info.plist has no \"Encryption\" entry");
  }
  SeaCrypto crypto;
  crypto.setSalt(encryption.get(kSeaCryptoSaltKey));
  crypto.setRounds(encryption.get(kSeaCryptoRoundsKey));
  if (!crypto.setPassword(Value(password))) {
    throw ToolError("the \"Encryption\" entry of " + infoPath + " has no usable salt and rounds");
  }
  std::vector<uint8_t> plain;
  if (!crypto.decryptBytes(bytes, &plain)) {
    throw ToolError("cannot decrypt " + displayName + ": wrong password or damaged file");
  }
  return plain;
}

}  // namespace quillon::tool
