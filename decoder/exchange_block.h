#pragma once

// The wire protocol shared by the service and its clients: the client type msg, the one-byte
// signals, and the layout of the exchange block. Its one home is the header that clients install,
// client/media_protocol.h, where it lives in a namespace.

#include "client/media_protocol.h"

// The service keeps the protocol's specified names, unqualified.
using namespace mediaclient::protocol;
