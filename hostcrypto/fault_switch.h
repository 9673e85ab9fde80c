// The test fault switch of the host crypto stand-in: OrvelTestSetFault arms a
// named function to fail, and every exported function asks faultHit first.
// Thread-safe; the state is process-wide.
#ifndef TEMBRA_HOSTCRYPTO_FAULT_SWITCH_H
#define TEMBRA_HOSTCRYPTO_FAULT_SWITCH_H

namespace tembra {
namespace hostcrypto {

// Arms `function` (one of the 14 host functions) to answer `result` for its
// next `times` calls; times -1 arms it for good, 0 disarms it. False for an
// unknown name or times below -1.
bool setFault(const char *function, int result, int times);
void clearFaults();

// True, with the armed result, if this call of `function` must fail; uses up
// one of the armed calls.
bool faultHit(const char *function, int &result);

}  // namespace hostcrypto
}  // namespace tembra

#endif  // TEMBRA_HOSTCRYPTO_FAULT_SWITCH_H
