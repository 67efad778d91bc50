#include "tests/support/CatalogueHooks.h"

#include <stdexcept>
#include <string>

namespace test {

tessel::TrapDescriptor& Trap(std::string_view functionName) {
  for (auto& [module, list] : tessel::traps()) {
    for (const auto& entry : list) {
      if (entry.functionName == functionName) {
        return *entry.descriptor;
      }
    }
  }
  throw std::logic_error("no trap for " + std::string(functionName));
}

}  // namespace test
