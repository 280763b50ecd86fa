#pragma once

// The descriptor owner of the client library, under the service's own name.

#include "client/media_unique_fd.h"

using mediaclient::UniqueFd;
