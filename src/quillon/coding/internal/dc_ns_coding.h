#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "quillon/base/value.h"

namespace quillon {

class DCNSCoder;
class DCNSDecoder;

// The keyed-coding protocol of objects stored in DenseCoding data (cache
// items and other framework classes). A class implements it beside
// quillon::Object, writes its state with DCNSCoder's keyed operations and
// registers a factory that rebuilds an instance from a DCNSDecoder (the
// initWithCoder equivalent). Data naming a class without a factory reads back
// as a GenericObject holding the stored keys and values.
class DCNSCoding {
 public:
  // Builds an instance from the decoder's current keyed values; nullptr when
  // the values do not make an object (the reader then stores nil).
  using Factory = std::function<std::shared_ptr<Object>(DCNSDecoder& decoder)>;

  virtual ~DCNSCoding() = default;
  virtual void encodeWithCoder(DCNSCoder& coder) const = 0;

  // Registers the factory for a class name, replacing an earlier one.
  // Thread-safe; usually done once at start-up. An object that keeps decoded
  // values must list them in Object::forEachValue: after a read whose graph
  // may hold cycles, the reader empties the containers that the root does
  // not reach through containers and those lists.
  static void registerClass(std::string className, Factory factory);
  // The factory registered for a name, or nullptr. The pointer stays valid
  // for the life of the process.
  static const Factory* factoryForClass(std::string_view className);
};

}  // namespace quillon
