// Playback and recording helpers shared by the media handlers and tests.
#pragma once
#include <atomic>
#include <cstdint>
#include <dirent.h>
#include <optional>

// Value of the "chmap" commands for a channel mask of the music frame.
unsigned remap_channel_mask(uint16_t mask);

// One report with music_state forced to 1, unless it is 1 already.
void send_playing_report();

// Next recording number from the "index_N.wav" names in dir, which it closes:
// (highest & 63) + 1, so that 64 wraps to 1.
int scan_next_index(DIR* dir);

// Queries the DSP service with `query` (dsp_reply_int) until it answers
// `wanted`, 1000 us apart, for as long as a pass starts no more than one
// whole second of CLOCK_MONOTONIC after the first. Each answer goes to *store when
// given. Returns the clock distance of the pass that saw `wanted`, or none.
std::optional<long> dsp_wait_state(const char* query, int wanted, std::atomic<int>* store);
