#include "addon/DllExports.h"
#include "tests/support/AddonModule.h"

namespace test {

AddonModule AddonModule::Load() { return {&::DllGetClassObject, &::DllCanUnloadNow}; }

}  // namespace test
