// TokenStore::provision, built when the provisioning library is.
#include <string>

#include <gtest/gtest.h>

#include "tests/support/provider_test_support.h"

namespace tembra {
namespace test {

void TokenStore::provision(const provision::DeviceSpec &device) {
  std::string error;
  ULONG result = provision::provisionDevice(device, &error);
  if (result != SAR_OK) {
    ADD_FAILURE() << "provisioning " << device.name << " failed with 0x" << std::hex << result << ": "
                  << error;
  }
}

}  // namespace test
}  // namespace tembra
