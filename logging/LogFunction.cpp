#include "logging/LogFunction.h"

namespace tessel::logging {

LogFunction logFunction;

const std::wstring win32ErrorText{L"Win32 Error"};

}  // namespace tessel::logging
