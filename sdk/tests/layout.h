/* What every build of the contract's header must agree on, checked while it is compiled. Included by C and
 * C++ sources. */
#ifndef RQ_SDK_TESTS_LAYOUT_H
#define RQ_SDK_TESTS_LAYOUT_H

#include <rqworker/plugin.h>

#ifdef __cplusplus
#define RQ_CHECK(condition) static_assert(condition, #condition)
#else
#define RQ_CHECK(condition) _Static_assert(condition, #condition)
#endif

/* Every struct but the text kinds begins with its size, and every struct that carries a version has it next.
 */
#define RQ_CHECK_SIZE_FIRST(type)               \
    RQ_CHECK(offsetof(struct type, size) == 0); \
    RQ_CHECK(sizeof(((struct type*)0)->size) == 4)

RQ_CHECK_SIZE_FIRST(RQRunningParameter);
RQ_CHECK_SIZE_FIRST(RQResultList);
RQ_CHECK_SIZE_FIRST(RQVerification);
RQ_CHECK_SIZE_FIRST(RQMd5File);
RQ_CHECK_SIZE_FIRST(RQMediaStream);
RQ_CHECK_SIZE_FIRST(RQMediaFormat);
RQ_CHECK_SIZE_FIRST(RQTransferOutput);
RQ_CHECK_SIZE_FIRST(RQTranscodeOutput);
RQ_CHECK_SIZE_FIRST(RQSourceDescription);
RQ_CHECK_SIZE_FIRST(RQTransferData);
RQ_CHECK_SIZE_FIRST(RQTranscodeData);
RQ_CHECK_SIZE_FIRST(RQReviewData);
RQ_CHECK_SIZE_FIRST(RQMd5Data);
RQ_CHECK_SIZE_FIRST(TaskInfo);
RQ_CHECK_SIZE_FIRST(RQHostServices);
RQ_CHECK_SIZE_FIRST(RQPluginDescription);

RQ_CHECK(offsetof(TaskInfo, contractVersion) == 4);
RQ_CHECK(offsetof(RQHostServices, contractVersion) == 4);
RQ_CHECK(offsetof(RQPluginDescription, contractVersion) == 4);

/* The order of the task information record's fields is the contract. */
RQ_CHECK(offsetof(TaskInfo, taskId) < offsetof(TaskInfo, own));
RQ_CHECK(offsetof(TaskInfo, own) < offsetof(TaskInfo, taskType));
RQ_CHECK(offsetof(TaskInfo, taskType) < offsetof(TaskInfo, status));
RQ_CHECK(offsetof(TaskInfo, status) < offsetof(TaskInfo, detailErrorCode));
RQ_CHECK(offsetof(TaskInfo, detailErrorCode) < offsetof(TaskInfo, errorCode));
RQ_CHECK(offsetof(TaskInfo, errorCode) < offsetof(TaskInfo, detailErrorText));
RQ_CHECK(offsetof(TaskInfo, detailErrorText) < offsetof(TaskInfo, furtherText));
RQ_CHECK(offsetof(TaskInfo, furtherText) < offsetof(TaskInfo, typeData));

/* Words that both sides touch are aligned, so that touching them is one access. */
RQ_CHECK(offsetof(TaskInfo, status) % 4 == 0);
RQ_CHECK(offsetof(RQResultList, count) % 4 == 0);

/* The whole layout, where pointers have 64 bits. */
#if UINTPTR_MAX == UINT64_MAX
RQ_CHECK(sizeof(RQText) == 16);
RQ_CHECK(sizeof(RQTextList) == 16);
RQ_CHECK(sizeof(RQPortList) == 16);
RQ_CHECK(sizeof(RQResultList) == 24);
RQ_CHECK(sizeof(RQVerification) == 72);
RQ_CHECK(sizeof(RQMd5File) == 88);
RQ_CHECK(sizeof(RQMediaStream) == 64);
RQ_CHECK(sizeof(RQMediaFormat) == 56);
RQ_CHECK(sizeof(RQTransferOutput) == 72);
RQ_CHECK(sizeof(RQTranscodeOutput) == 64);
RQ_CHECK(sizeof(RQSourceDescription) == 16);
RQ_CHECK(sizeof(RQTransferData) == 24);
RQ_CHECK(sizeof(RQTranscodeData) == 32);
RQ_CHECK(sizeof(RQReviewData) == 8);
RQ_CHECK(sizeof(RQMd5Data) == 16);
RQ_CHECK(sizeof(TaskInfo) == 88);
RQ_CHECK(offsetof(TaskInfo, taskId) == 8);
RQ_CHECK(offsetof(TaskInfo, status) == 36);
RQ_CHECK(offsetof(TaskInfo, typeData) == 80);
RQ_CHECK(sizeof(RQHostServices) == 64);
RQ_CHECK(sizeof(RQPluginDescription) == 64);
RQ_CHECK(offsetof(RQPluginDescription, types) == 40);
#endif

#endif
