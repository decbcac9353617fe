#ifndef TQ_NDM_H
#define TQ_NDM_H

/* All questions that a client can ask about the device topology, one header for each kind of question. */

#include "ndm/card_ports.h"
#include "ndm/chips.h"
#include "ndm/identifiers.h"
#include "ndm/port_lookup.h"
#include "ndm/records.h"
#include "ndm/requests.h"
#include "ndm/roles.h"
#include "ndm/slots.h"
#include "ndm/statics.h"
#include "ndm/virtual_switch.h"

#endif
