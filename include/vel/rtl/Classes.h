// What the component runtime's Classes unit gave, in one include: persistent
// objects, components and collections, lists and string lists, streams, the
// filer (component streams), the object text form, threads (with the message
// queues they use) and run-time type information with the class macros
// (VEL_CLASS, VEL_PUBLISHED, VEL_IMPLEMENT).
#pragma once

#include "vel/rtl/Components.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/Persistent.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/System.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"
