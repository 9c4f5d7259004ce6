// Device conditions that the task managers' activation policy asks about
// before it lets transfers run.
//
// Contract
// - Stateless; callable from any thread.
// - On a desktop the answers are constants: good battery, external power, a
//   foreground application. Every caller still goes through these functions so
//   that a port to a device where the answers vary replaces only their bodies.
#pragma once

namespace znv {

// Starts watching the battery where that needs switching on; nothing here.
void ZNVNetworkDevice_enableBatteryMonitoring();
// Always true on a desktop.
bool ZNVNetworkDevice_batteryLevelIsGood();
// Always true on a desktop.
bool ZNVNetworkDevice_deviceIsPluggedIn();
// Always false on a desktop.
bool ZNVNetworkDevice_appIsInBackground();

}  // namespace znv
