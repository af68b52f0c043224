// The program's own argument block, as process listings show it.
#pragma once

namespace zel::platform {

// Makes `argument` an empty text. Its bytes are wiped only when they lie in the block that the host handed to main:
// other texts may stand in memory that cannot be written.
void blankArgument(char *&argument);

}  // namespace zel::platform
