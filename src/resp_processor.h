// Feeds the link (link.h) with what the modem sends, acts on what it announces and passes answers on to their callers.
#pragma once

// Thread function.
void *resp_processor(void *);
