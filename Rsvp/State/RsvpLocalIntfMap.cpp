#include <Rsvp/RsvpLocalIntfMap.h>

namespace Lumo {

IntfIpTrie::IntfIdIterator IntfIpTrie::longestMatch(Lumo::IpGenAddr const& addr) const noexcept {
  return intfId_.longestMatch(addr);
}

IntfIp6Trie::IntfIdIterator IntfIp6Trie::longestMatch(Lumo::IpGenAddr const& addr) const noexcept {
  return intfId_.longestMatch(addr);
}

}  // namespace Lumo
