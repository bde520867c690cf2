// The whole road of an event, from the call on a host's thread to where it is written, the same way for every peer: one
// program per peer, made of road.cpp and the peer's own source, which defines the functions below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "oxEvent.h"

// The peer's name in the results.
extern const char* const kPeer;

// Whether the peer delivers on a thread of its own.
extern const bool kHasWorker;

// Starts with a queue of so many events; what it writes goes into this folder.
void PeerStart(const std::string& folder, uint32_t queue_size);

// Reports one event. Any thread. Its event_id and value differ from call to call.
void PeerSubmit(const oxEventRecord& record);

// Waits until everything reported is delivered, or lost.
void PeerDrain();

void PeerStop();

// To be called by the peer on the thread that delivers, once the event has been written.
void Delivered(uint64_t event_id);
