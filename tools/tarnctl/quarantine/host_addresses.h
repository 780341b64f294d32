#pragma once

// The addresses of this host, and news of them.
//
// Threads: one at a time.

#include <string>
#include <vector>

namespace tarnctl {

// Whatever the interfaces have at the moment of the call: their addresses, and the broadcast
// addresses of their networks. Empty when it cannot be found out.
[[nodiscard]] std::vector<std::string> HostAddresses();

// Tells when an interface gets an address.
class AddressWatch {
  public:
    // Where the system gives no news, HasNews() is always true.
    AddressWatch();
    ~AddressWatch();
    AddressWatch(const AddressWatch&) = delete;
    AddressWatch& operator=(const AddressWatch&) = delete;

    // Whether an address may have come since the last call.
    [[nodiscard]] bool HasNews() const;

    // Becomes readable when there is news; -1 where the system gives none.
    [[nodiscard]] int Descriptor() const { return m_socket; }

  private:
    const int m_socket;  // owned
};

}  // namespace tarnctl
