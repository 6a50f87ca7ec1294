// Unicast reverse-path forwarding: per-interface configuration and the summary of where it
// is in effect.
#pragma once

#include <cstdint>
#include <ostream>

#include "konet/IntfId.h"
#include "mox/Entity.h"
#include "mox/Enum.h"
#include "mox/HashMap.h"

namespace Urpf {

enum class UrpfMode : uint8_t { disable = 0, loose = 1, strict = 2, strictDefault = 3 };
constexpr auto moxEnumNames(UrpfMode) {
   return Mox::EnumNames<UrpfMode, 4>{{{UrpfMode::disable, "disable"},
                                       {UrpfMode::loose, "loose"},
                                       {UrpfMode::strict, "strict"},
                                       {UrpfMode::strictDefault, "strictDefault"}}};
}
inline std::ostream& operator<<(std::ostream& os, UrpfMode m) { return Mox::streamEnum(os, m); }

struct UrpfConfig {
   UrpfMode mode = UrpfMode::disable;
   bool allowDefaultRoute = false;
   bool enabled() const { return mode != UrpfMode::disable; }
   friend bool operator==(UrpfConfig const&, UrpfConfig const&) = default;
};
inline std::ostream& operator<<(std::ostream& os, UrpfConfig const& c) {
   return os << c.mode << (c.allowDefaultRoute ? "+default" : "");
}

// Where uRPF is in effect, per interface, and whether anywhere at all.
class UrpfOnAllIntfStat : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<UrpfOnAllIntfStat> {
   public:
      virtual void onIntfUrpf(Konet::IntfId const&) {}
      virtual void onUrpfOnAnyIntf() {}
   };
   UrpfMode intfUrpf(Konet::IntfId const& id) const { return Mox::valueOr(intfUrpf_, id); }
   void intfUrpfIs(Konet::IntfId const& id, UrpfMode m) {
      if (m == UrpfMode::disable) {
         intfUrpfDel(id);
         return;
      }
      setMember(intfUrpf_, id, m, &NotifieeConst::onIntfUrpf);
      setAttr(urpfOnAnyIntf_, true, &NotifieeConst::onUrpfOnAnyIntf);
   }
   void intfUrpfDel(Konet::IntfId const& id) {
      delMember(intfUrpf_, id, &NotifieeConst::onIntfUrpf);
      setAttr(urpfOnAnyIntf_, !intfUrpf_.empty(), &NotifieeConst::onUrpfOnAnyIntf);
   }
   bool urpfOnAnyIntf() const { return urpfOnAnyIntf_; }
   size_t intfUrpfSize() const { return intfUrpf_.size(); }

private:
   Mox::HashMap<Konet::IntfId, UrpfMode> intfUrpf_;
   bool urpfOnAnyIntf_ = false;
};

}  // namespace Urpf
