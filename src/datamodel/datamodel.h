// The parameters that the device-management agent reads and writes, served as GetValue, SetValue
// and GetObject on /com/kelvanto/nimbrel.
#pragma once

// Fails when a method cannot be served, and when the provisioning state could not be handed to the
// box's agent service; the methods stay served then.
bool datamodel_start();
bool datamodel_stop();
