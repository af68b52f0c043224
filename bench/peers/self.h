#pragma once

long peerSelf();
void peerSetSelf(long value);
