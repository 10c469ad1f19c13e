// Read-only access to a replica by attribute descriptor. A replica belongs
// to its attribute log: changes are made at the source, so every mutating
// operation through the proxy raises Kel::ReadOnlyProxyException.
#ifndef KEL_READONLYPROXY_H
#define KEL_READONLYPROXY_H

#include <Kel/Entity.h>
#include <Kel/Exception.h>
#include <Kel/TypeDesc.h>

namespace Kel {

// "Attribute <Type>::<attr> is read-only through this proxy".
class ReadOnlyProxyException : public Exception {
 public:
  ReadOnlyProxyException(std::string_view type, std::string_view attr);
};

class ReadOnlyProxy {
 public:
  explicit ReadOnlyProxy(Entity const& entity) : entity_(&entity) {}

  [[nodiscard]] Entity const& entity() const noexcept { return *entity_; }
  // As TypeDesc::attributeOp for reads (read, peek, iterate, size, member
  // read, a write's check, a queue's next number, whether a value is the
  // default, whole-value tests); a write of any kind raises. Iterators
  // refuse delCurrent() the same way.
  int attributeOp(void* result, KelAttr const* attr, U32 op, void const* arg1 = nullptr,
                  void const* arg2 = nullptr) const;

 private:
  Entity const* entity_;
};

}  // namespace Kel

#endif  // KEL_READONLYPROXY_H
