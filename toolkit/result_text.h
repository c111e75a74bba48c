#pragma once

namespace toolkit {

// A one-line meaning of a library result code (HTTP statuses included).
const char* ResultText(int code);

}  // namespace toolkit
