// The text of a status, as zlk_error hands it out: one static text per known status, or the text of its
// origin. Lower layers name statuses in log lines through it without going through the exported edge.
#pragma once

#include "zlk/error.h"

namespace zlk
{

// Never fails, never allocates; the text lives as long as the program.
const char * status_text(zlk_error_t error) noexcept;

} // namespace zlk
