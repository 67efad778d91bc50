#include "addon/DllExports.h"
#include "tests/support/HookedAddon.h"

namespace test {

AddonModule AddonModule::Load() { return {&::DllGetClassObject, &::DllCanUnloadNow}; }

}  // namespace test
