/* The library that needs_neighbour needs. */
#include <rqworker/plugin.h>

RQ_PLUGIN_EXPORT int32_t RQNeighbourCode(void);

int32_t RQNeighbourCode(void) {
    return 0;
}
