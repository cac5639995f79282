/* rqworker/running_parameter.h: the running parameters as a plug-in receives them. Made by rq_generate
 * from src/records/running_parameter_table.inc: change the table and build the target `generate`.
 *
 * The record and everything it points to belong to the worker. The one given to RQWorkerInit lives until
 * RQWorkerRelease, the one given to RQWorkerPerformTask until that call returns. A plug-in that keeps
 * something longer copies it. Any thread may read.
 *
 * `size` is what the worker knows of the record, in bytes. A field lies inside it when
 * offsetof(RQRunningParameter, field) + sizeof(field) <= size. Fields are only ever added at the end.
 *
 * Each comment gives the element in "actor.xml", the default with its unit, and the meaning. Flags are 0 or
 * 1, texts UTF-8. */
/* clang-format off */
#ifndef RQWORKER_RUNNING_PARAMETER_H
#define RQWORKER_RUNNING_PARAMETER_H

#include <stdint.h>

#include "rqworker/text.h"

typedef struct RQRunningParameter {
    uint32_t size; /* bytes of this record that are there */
    int32_t value01; /* Value01; default 0; for plug-ins */
    int32_t heartbeatInterval_s; /* HeartbeatInterval; default 60 s; time between heartbeats; 60 and more act as 40 */
    int32_t value03; /* Value03; default 60; for plug-ins */
    int32_t value04; /* Value04; default 25; for plug-ins */
    uint8_t flag05; /* Flag05; default 1; for plug-ins */
    uint8_t flag06; /* Flag06; default 1; for plug-ins */
    RQText text07; /* Text07; default empty; for plug-ins */
    RQTextList texts08; /* Texts08; default no item; for plug-ins */
    uint8_t flag09; /* Flag09; default 0; for plug-ins */
    uint8_t flag10; /* Flag10; default 1; for plug-ins */
    uint8_t flag11; /* Flag11; default 1; for plug-ins */
    uint8_t flag12; /* Flag12; default 1; for plug-ins */
    uint8_t flag13; /* Flag13; default 1; for plug-ins */
    uint8_t flag14; /* Flag14; default 0; for plug-ins */
    uint8_t flag15; /* Flag15; default 0; for plug-ins */
    float real16; /* Real16; default 1; for plug-ins */
    float real17; /* Real17; default 1; for plug-ins */
    float real18; /* Real18; default 8; for plug-ins */
    uint8_t flag19; /* Flag19; default 1; for plug-ins */
    uint8_t flag20; /* Flag20; default 0; for plug-ins */
    int32_t value21; /* Value21; default 30; for plug-ins */
    int32_t value22; /* Value22; default 0; for plug-ins */
    int32_t value23; /* Value23; default 5; for plug-ins */
    int32_t progressReportInterval_s; /* ProgressReportInterval; default 5 s; time between progress reports */
    int32_t progressPatrolTimeout_s; /* ProgressPatrolTimeout; default 60 s; a task without progress for this long is closed as stalled; negative: practically never */
    int32_t value26; /* Value26; default 0; for plug-ins */
    uint8_t flag27; /* Flag27; default 0; for plug-ins */
    int32_t value28; /* Value28; default 10; for plug-ins */
    int32_t value29; /* Value29; default 30; for plug-ins */
    int32_t value30; /* Value30; default 50; for plug-ins */
    RQText text31; /* Text31; default empty; for plug-ins */
    uint8_t flag32; /* Flag32; default 0; for plug-ins */
    uint8_t flag33; /* Flag33; default 0; for plug-ins */
    uint8_t flag34; /* Flag34; default 1; for plug-ins */
    uint8_t flag35; /* Flag35; default 0; for plug-ins */
    int32_t value36; /* Value36; default 300; for plug-ins */
    int32_t value37; /* Value37; default 0; for plug-ins */
    int32_t value38; /* Value38; default 0; for plug-ins */
    int32_t value39; /* Value39; default 0; for plug-ins */
    int32_t value40; /* Value40; default 1; for plug-ins */
    int32_t value41; /* Value41; default 1; for plug-ins */
    int32_t value42; /* Value42; default 0; for plug-ins */
    int32_t value43; /* Value43; default 0; for plug-ins */
    int32_t value44; /* Value44; default 50; for plug-ins */
    int32_t value45; /* Value45; default 25; for plug-ins */
    int32_t value46; /* Value46; default 1; for plug-ins */
    int32_t value47; /* Value47; default 1; for plug-ins */
    RQText text48; /* Text48; default "MPEG2_IBP,"; for plug-ins */
    int32_t value49; /* Value49; default 0; for plug-ins */
    int32_t value50; /* Value50; default 0; for plug-ins */
    int32_t value51; /* Value51; default 0; for plug-ins */
    uint8_t flag52; /* Flag52; default 1; for plug-ins */
    RQText text53; /* Text53; default empty; for plug-ins */
    RQText text54; /* Text54; default empty; for plug-ins */
    int32_t value55; /* Value55; default 0; for plug-ins */
    int32_t value56; /* Value56; default 1; for plug-ins */
    int32_t value57; /* Value57; default 1800; for plug-ins */
    int32_t value58; /* Value58; default 120; for plug-ins */
    int32_t value59; /* Value59; default 1; for plug-ins; goes with HttpEndpoint */
    RQText httpEndpoint; /* HttpEndpoint; default "http://127.0.0.1:8802"; HTTP service that plug-ins may call */
    RQText replyVersion; /* ReplyVersion; default empty; for plug-ins: version of a prepared reply */
    RQText replyGuid; /* ReplyGuid; default empty; for plug-ins: GUID of a prepared reply */
    RQText replyTaskId; /* ReplyTaskId; default empty; for plug-ins: task ID of a prepared reply */
    RQText replyResult; /* ReplyResult; default empty; for plug-ins: result code of a prepared reply */
    RQText replyMessage; /* ReplyMessage; default empty; for plug-ins: message of a prepared reply */
    int32_t value66; /* Value66; default 0; for plug-ins */
    RQTextList serverAddresses; /* ServerAddresses; default "127.0.0.1"; engine addresses, tried by index */
    RQPortList serverPorts; /* ServerPorts; default 8083; engine ports, one for each address */
    int32_t nextServerIndex; /* no element; default 0; index of the engine to try next; a read of the file sets it to 0 */
} RQRunningParameter;

#endif /* RQWORKER_RUNNING_PARAMETER_H */
