#pragma once
// Everything an application needs.
#include "qnbrl/brl_delegate.hpp"
#include "qnbrl/brl_kit.hpp"
#include "qnbrl/brl_options.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "qnbrl/brl_types.hpp"
