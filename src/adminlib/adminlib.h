// The admin client library's lower half: support routines, sockets and addresses,
// authentication and the message layer to the port mapper and FSMs.
#pragma once

#include "adminlib/alloc.h"
#include "adminlib/auth.h"
#include "adminlib/drras.h"
#include "adminlib/fsm_requests.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/fsmpm_requests.h"
#include "adminlib/pollutil.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"
