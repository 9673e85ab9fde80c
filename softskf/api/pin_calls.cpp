// PIN calls and the security state. A wrong PIN counts its retry counter
// down on disk before the answer is given; at 0 the PIN is locked. A correct
// PIN resets its counter and unwraps the application's token key, which
// stays in process memory until SKF_ClearSecureState.
#include "softskf/api/pin_rules.h"
#include "softskf/core/session.h"
#include "softskf/keys/key_wrap.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

PinRecord *pinOf(ApplicationRecord &app, ULONG type) {
  if (type == USER_TYPE) return &app.userPin;
  if (type == ADMIN_TYPE) return &app.adminPin;
  return nullptr;
}

void setRetry(ULONG *pulRetryCount, ULONG value) {
  if (pulRetryCount != nullptr) *pulRetryCount = value;
}

// Checks `pin` against the record. A failure counts down, saves and logs the
// PIN type out; success resets the counter (saved if it changed).
ULONG presentPin(AppSession &session, PinRecord &record, ULONG type, const PinText &pin,
                 TokenKey &tokenKey, ULONG *pulRetryCount) {
  if (record.remaining == 0) {
    setRetry(pulRetryCount, 0);
    return SAR_PIN_LOCKED;
  }
  if (!checkPin(record, pin.value, tokenKey)) {
    --record.remaining;
    ULONG rv = session.save();
    SecurityState &state = session.security();
    (type == USER_TYPE ? state.user : state.admin) = false;
    if (!state.user) state.dropKeys();               // the ready keys go with the user login
    if (!state.user && !state.admin) state.clear();  // no login left to need the token key
    setRetry(pulRetryCount, record.remaining);
    return rv != SAR_OK ? rv : SAR_PIN_INCORRECT;
  }
  if (record.remaining != record.maxRetries) {
    record.remaining = record.maxRetries;
    ULONG rv = session.save();
    if (rv != SAR_OK) return rv;
  }
  setRetry(pulRetryCount, record.remaining);
  return SAR_OK;
}

void logIn(AppSession &session, ULONG type, const TokenKey &tokenKey) {
  SecurityState &state = session.security();
  (type == USER_TYPE ? state.user : state.admin) = true;
  state.tokenKey = tokenKey;
  state.hasTokenKey = true;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_VerifyPIN(HAPPLICATION hApplication, ULONG ulPINType, LPSTR szPIN,
                           ULONG *pulRetryCount) {
  return guarded([&]() -> ULONG {
    Call call("SKF_VerifyPIN");
    call.handle("hApplication", hApplication).number("ulPINType", ulPINType);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    PinRecord *record = pinOf(session.app(), ulPINType);
    if (record == nullptr) return SAR_USER_TYPE_INVALID;
    PinText pin;
    if ((rv = takePin(szPIN, pin)) != SAR_OK) return rv;
    TokenKey tokenKey;
    if ((rv = presentPin(session, *record, ulPINType, pin, tokenKey, pulRetryCount)) != SAR_OK)
      return rv;
    logIn(session, ulPINType, tokenKey);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ChangePIN(HAPPLICATION hApplication, ULONG ulPINType, LPSTR szOldPin,
                           LPSTR szNewPin, ULONG *pulRetryCount) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ChangePIN");
    call.handle("hApplication", hApplication).number("ulPINType", ulPINType);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    PinRecord *record = pinOf(session.app(), ulPINType);
    if (record == nullptr) return SAR_USER_TYPE_INVALID;
    PinText oldPin, newPin;
    if ((rv = takePin(szOldPin, oldPin)) != SAR_OK) return rv;
    if ((rv = takePin(szNewPin, newPin)) != SAR_OK) return rv;
    TokenKey tokenKey;
    if ((rv = presentPin(session, *record, ulPINType, oldPin, tokenKey, pulRetryCount)) != SAR_OK)
      return rv;
    PinRecord changed = *record;
    if (!setPin(changed, newPin.value, tokenKey)) return SAR_FAIL;
    changed.isDefault = false;
    *record = changed;
    return session.save();
  });
}

ULONG DEVAPI SKF_UnblockPIN(HAPPLICATION hApplication, LPSTR szAdminPIN, LPSTR szNewUserPIN,
                            ULONG *pulRetryCount) {
  return guarded([&]() -> ULONG {
    Call call("SKF_UnblockPIN");
    call.handle("hApplication", hApplication);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    PinText adminPin, newPin;
    if ((rv = takePin(szAdminPIN, adminPin)) != SAR_OK) return rv;
    if ((rv = takePin(szNewUserPIN, newPin)) != SAR_OK) return rv;
    ApplicationRecord &app = session.app();
    TokenKey tokenKey;
    if ((rv = presentPin(session, app.adminPin, ADMIN_TYPE, adminPin, tokenKey, pulRetryCount)) !=
        SAR_OK) {
      return rv;
    }
    PinRecord user = app.userPin;
    if (!setPin(user, newPin.value, tokenKey)) return SAR_FAIL;
    user.remaining = user.maxRetries;
    user.isDefault = false;
    app.userPin = user;
    session.security().user = false;
    return session.save();
  });
}

ULONG DEVAPI SKF_GetPINInfo(HAPPLICATION hApplication, ULONG ulPINType, ULONG *pulMaxRetryCount,
                            ULONG *pulRemainRetryCount, BOOL *pbDefaultPin) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GetPINInfo");
    call.handle("hApplication", hApplication).number("ulPINType", ulPINType);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    const PinRecord *record = ulPINType == USER_TYPE    ? &session.view().userPin
                              : ulPINType == ADMIN_TYPE ? &session.view().adminPin
                                                        : nullptr;
    if (record == nullptr) return SAR_USER_TYPE_INVALID;
    if (pulMaxRetryCount == nullptr || pulRemainRetryCount == nullptr || pbDefaultPin == nullptr)
      return SAR_INVALIDPARAMERR;
    *pulMaxRetryCount = record->maxRetries;
    *pulRemainRetryCount = record->remaining;
    *pbDefaultPin = record->isDefault ? TRUE : FALSE;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ClearSecureState(HAPPLICATION hApplication) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ClearSecureState");
    call.handle("hApplication", hApplication);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    ApplicationObject *app = call.token().handles.application(hApplication);
    if (app == nullptr) return SAR_INVALIDHANDLEERR;
    DeviceObject *device = call.token().handles.deviceById(app->device);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    call.token().forgetSecurity(device->location, app->name);
    return SAR_OK;
  });
}

}  // extern "C"
