#include "services/peers/peers.h"
