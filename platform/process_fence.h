// One side of an asymmetric fence: the seldom side pays for both.
#pragma once

namespace zel::platform {

// Makes every running thread of this process pass a full memory fence before it returns; false where the host cannot.
bool fenceAllThreads();

}  // namespace zel::platform
