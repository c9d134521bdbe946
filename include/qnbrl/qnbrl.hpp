#pragma once
/// @file
/// Everything an application needs.
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_channel.hpp"
#include "qnbrl/brl_channel_delegate.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "qnbrl/brl_delegate.hpp"
#include "qnbrl/brl_invitation.hpp"
#include "qnbrl/brl_invitation_delegate.hpp"
#include "qnbrl/brl_invitation_kit.hpp"
#include "qnbrl/brl_kit.hpp"
#include "qnbrl/brl_message.hpp"
#include "qnbrl/brl_options.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "qnbrl/brl_types.hpp"
#include "qnbrl/export.hpp"

/// The client SDK of the signalling service. Start at QNBRLKit.
namespace qnbrl {}
