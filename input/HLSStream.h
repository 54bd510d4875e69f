// HLS input: a playlist of MPEG-TS segments read as one input stream.
#pragma once

#include <memory>

#include "input/MediaInputStream.h"

// Makes the HLS input of a player; null when this build cannot play HLS.
std::unique_ptr<MediaInputStream> CreateHLSStream(int playerId);
