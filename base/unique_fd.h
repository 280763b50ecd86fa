#pragma once

// The descriptor owner of the client library, under the service's own name: one owner of
// descriptors for the service, its tools and its clients.

#include "protocol/media_unique_fd.h"

using mediaclient::UniqueFd;
