#include "znv/foundation/device.h"

namespace znv {

void ZNVNetworkDevice_enableBatteryMonitoring() {}

bool ZNVNetworkDevice_batteryLevelIsGood() {
    return true;
}

bool ZNVNetworkDevice_deviceIsPluggedIn() {
    return true;
}

bool ZNVNetworkDevice_appIsInBackground() {
    return false;
}

}  // namespace znv
