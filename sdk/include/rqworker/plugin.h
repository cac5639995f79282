/*
 * rqworker/plugin.h: the contract between a worker and a task plug-in. Contract version 1.
 *
 * A plug-in is one shared library that does the media work of one or more task types. The worker loads it
 * once, calls four exported functions and, when it is there, a fifth:
 *
 *   RQWorkerInit           once, before any task                                optional
 *   RQWorkerAnalyseTask    for each task text, and for each update of it        required
 *   RQWorkerPerformTask    for each analysed task; does the work                required
 *   RQWorkerRelease        once, at the end                                     optional
 *   RQWorkerDescribe       once, before RQWorkerInit                            optional
 *
 * The header is plain C (C11, C17, C++17, C++20) and includes nothing of the worker. rqworker/plugin.hpp
 * wraps it for C++ authors.
 *
 * RULES FOR EVERYTHING BELOW
 *
 * Texts are UTF-8, given as a pointer and a length in bytes (RQText); they need no zero at the end and may be
 * {NULL, 0}. Whoever receives a text borrows it and never frees it. Bytes that are not UTF-8 become U+FFFD in
 * the worker, which logs one line that names the plug-in.
 *
 * Structs begin with `size`: their maker sets it to sizeof(the struct as it knows it). A reader uses a field
 * only when it lies inside `size`; a longer struct of a later version is read as far as it is known.
 *
 * Nothing but the perform call may throw. A C++ exception that leaves RQWorkerPerformTask on the thread that
 * made the call is caught and reported as the task's error; one that leaves any other function, or another
 * thread, ends the process.
 *
 * Threads: "main" is the worker's main thread, "link" the thread that delivers the engine's orders, "any" any
 * thread, also one that the plug-in started itself. Threads of the plug-in's own must have ended before
 * RQWorkerPerformTask returns.
 */
#ifndef RQWORKER_PLUGIN_H
#define RQWORKER_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#include "rqworker/running_parameter.h"
#include "rqworker/text.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RQ_CONTRACT_VERSION 1u

#if defined(_WIN32)
#define RQ_PLUGIN_EXPORT __declspec(dllexport)
#else
#define RQ_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

/* Values of TaskInfo.status. */
#define RQ_STATUS_FINISHED 0u
#define RQ_STATUS_RUNNING 3u
#define RQ_STATUS_ERROR 4u
#define RQ_STATUS_CANCELLED 5u
#define RQ_STATUS_PAUSED 7u /* set by the worker alone, while it holds a suspended task in the callback */

/* Values of the stop flag. */
#define RQ_STOP_NONE 0u
#define RQ_STOP_CANCEL 1u /* give up: leave nothing behind, return with status 5 */
#define RQ_STOP_FINISH 2u /* end early and well: keep what is done, return with status 0 */

/* Values of TaskInfo.taskType whose per-type data is defined below. */
#define RQ_TYPE_TRANSFER 0
#define RQ_TYPE_TRANSCODE 1
#define RQ_TYPE_REVIEW 2
#define RQ_TYPE_MD5_COMPUTE 3
#define RQ_TYPE_MD5_VERIFY 4
#define RQ_TYPE_SOURCE_SIZE 5
#define RQ_TYPE_DELETE 7
#define RQ_TYPE_REALTIME_MERGE 8
#define RQ_TYPE_TRANSCODE_30 30 /* reported like a transcode */

/* ---- words that both sides touch ----------------------------------------------------------------
 *
 * While RQWorkerPerformTask runs, these are read and written by several threads of the worker and of the
 * plug-in: the stop flag, TaskInfo.status and the `count` of a result list. Access them with these functions
 * only. RQLoad32 has acquire, RQStore32 release order: what was written before a store is seen after a load
 * of its value.
 */
#if defined(_MSC_VER)
#include <intrin.h>
static __inline uint32_t RQLoad32(const volatile uint32_t* word) {
    return (uint32_t)_InterlockedOr((volatile long*)word, 0);
}
static __inline void RQStore32(volatile uint32_t* word, uint32_t value) {
    (void)_InterlockedExchange((volatile long*)word, (long)value);
}
#else
static inline uint32_t RQLoad32(const volatile uint32_t* word) {
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}
static inline void RQStore32(volatile uint32_t* word, uint32_t value) {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}
#endif

/* ---- per-type data ------------------------------------------------------------------------------
 *
 * Result lists only grow. `items` points to `capacity` pointers, both fixed when the analyse call returns;
 * the entry items[i] is complete before `count` is stored (RQStore32) as i + 1, and is not changed or moved
 * after that until the task information record ends. The worker reads the first `count` entries, at any time,
 * from any of its threads. A plug-in that cannot know how many entries there will be uses
 * RQHostServices.publishResult.
 */
typedef struct RQResultList {
    uint32_t size;
    uint32_t capacity;        /* entries that `items` has room for */
    const void* const* items; /* pointers to the records named below; NULL when capacity is 0 */
    volatile uint32_t count;  /* entries published so far; access with RQLoad32 and RQStore32 */
    uint32_t reserved;
} RQResultList;

/* Which of an entry's digests hold a value. Without a first digest, or with one that is all zero, the entry
 * counts as not compared; without a second one beside a first it counts as different. */
#define RQ_HAS_FIRST_MD5 1u
#define RQ_HAS_SECOND_MD5 2u
#define RQ_HAS_COMPUTED_MD5 4u

/* One compared file (types 0, 1, 8, 30). The worker calls it equal when both digests are there, the first is
 * not all zero, and they agree. */
typedef struct RQVerification {
    uint32_t size;
    uint32_t has; /* RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5 */
    RQText first;
    RQText second;
    uint8_t firstMd5[16];
    uint8_t secondMd5[16];
} RQVerification;

/* One file of an MD5 task (types 3 and 4). */
typedef struct RQMd5File {
    uint32_t size;
    uint32_t has; /* type 3: RQ_HAS_COMPUTED_MD5; type 4: RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5 */
    RQText first;
    RQText second;
    uint8_t firstMd5[16];    /* type 4: what the file should have */
    uint8_t secondMd5[16];   /* type 4: what it has */
    uint8_t computedMd5[16]; /* type 3 */
} RQMd5File;

#define RQ_STREAM_VIDEO 1u
#define RQ_STREAM_AUDIO 2u
#define RQ_STREAM_OTHER 0u

typedef struct RQMediaStream {
    uint32_t size;
    uint32_t kind; /* RQ_STREAM_... */
    RQText codec;
    uint32_t width_px;
    uint32_t height_px;
    uint32_t frameRateNumerator;
    uint32_t frameRateDenominator;
    uint32_t sampleRate_Hz;
    uint32_t channels;
    uint64_t bitRate_bps;
    int64_t duration_us; /* -1 when unknown */
} RQMediaStream;

typedef struct RQMediaFormat {
    uint32_t size;
    uint32_t streamCount;
    const RQMediaStream* const* streams; /* streamCount pointers */
    RQText container;
    int64_t duration_us; /* -1 when unknown */
    uint64_t size_bytes;
    uint64_t bitRate_bps;
} RQMediaFormat;

/* One output of a transfer (type 0). */
#define RQ_OUTPUT_PLAIN 0u
#define RQ_OUTPUT_FORMAT 2u /* `format` is set */
#define RQ_OUTPUT_TEXT 3u   /* `further` is set */
typedef struct RQTransferOutput {
    uint32_t size;
    uint32_t kind; /* RQ_OUTPUT_... */
    RQText first;
    RQText second;
    uint64_t size_bytes;
    const RQMediaFormat* format; /* NULL unless kind is RQ_OUTPUT_FORMAT */
    RQText further;
} RQTransferOutput;

/* One output of a transcode (types 1, 8, 30). */
typedef struct RQTranscodeOutput {
    uint32_t size;
    uint32_t frames;   /* pictures written, 0 without video */
    uint32_t audio_ms; /* length of the sound, 0 without audio */
    uint32_t reserved;
    uint64_t size_bytes;         /* of the file */
    RQText first;                /* its path */
    RQText second;               /* its container: "mp4" */
    const RQMediaFormat* format; /* may be NULL: the report then carries no format */
} RQTranscodeOutput;

/* What the worker must know of a transcode's source (type 1): the first description, when it has video, gives
 * the frame rate of the efficiency figures. */
typedef struct RQSourceDescription {
    uint32_t size;
    uint32_t hasVideo; /* 0 or 1 */
    uint32_t frameRateNumerator;
    uint32_t frameRateDenominator;
} RQSourceDescription;

typedef struct RQTransferData { /* type 0 */
    uint32_t size;
    uint32_t reserved;
    RQResultList* verifications; /* of RQVerification, one a transferred file; may be NULL */
    RQResultList* outputs;       /* of RQTransferOutput; may be NULL */
} RQTransferData;

typedef struct RQTranscodeData { /* types 1, 8, 30 */
    uint32_t size;
    uint32_t sourceCount;
    const RQSourceDescription* const* sources; /* sourceCount pointers, fixed when the analyse call returns */
    RQResultList* verifications;               /* of RQVerification; may be NULL */
    RQResultList* outputs;                     /* of RQTranscodeOutput; may be NULL */
} RQTranscodeData;

typedef struct RQReviewData { /* type 2 */
    uint32_t size;
    uint8_t twoPass;      /* both flags set: the first pass fills 0 to 50 percent, the second 50 to 100 */
    uint8_t twoPassAudio; /* second of the two flags */
    uint8_t reserved[2];
} RQReviewData;

typedef struct RQMd5Data { /* types 3 and 4 */
    uint32_t size;
    uint32_t reserved;
    RQResultList* files; /* of RQMd5File, one a file, in the task's order */
} RQMd5Data;

/* ---- the task information record ----------------------------------------------------------------
 *
 * Made by the plug-in in RQWorkerAnalyseTask and freed by the plug-in alone. A record of another contract
 * version, or one smaller than this, is taken as none, with a line in the log. A record lives at least until
 * the next analyse call that is entered with *taskInfo NULL, as it is for a new task, or RQWorkerRelease; an
 * update is entered with *taskInfo at the task's present record, which the worker may be about to perform.
 * One that RQWorkerPerformTask was given lives longer: until the next RQWorkerPerformTask or RQWorkerRelease,
 * whatever analyse calls come meanwhile. An update of the task is such a call; it may come while
 * RQWorkerPerformTask runs, or just as it returns, and the worker reads the task's outcome after that.
 *
 * The worker writes these fields and no others: `status` (atomically, any thread), and on the main thread,
 * while no plug-in function runs, `errorCode`, `detailErrorText` and `furtherText`, and `detailErrorCode` for
 * an error that was published. The texts then point to memory of the worker's that lives until
 * RQWorkerRelease. The plug-in must therefore free the memory of its own texts through pointers of its own,
 * never through the fields.
 *
 * The plug-in writes the error fields and texts on the thread of the analyse or perform call only, or through
 * RQHostServices.publishError from any thread.
 */
typedef struct TaskInfo {
    uint32_t size;
    uint32_t contractVersion; /* RQ_CONTRACT_VERSION */
    RQText taskId;            /* fixed when the analyse call returns; empty when the task has none */
    void* own;                /* the plug-in's own; the worker never looks at it */
    int32_t taskType;         /* the task type number; 14 is a package */
    volatile uint32_t status; /* RQ_STATUS_...; access with RQLoad32 and RQStore32 */
    uint32_t detailErrorCode; /* the processing library's own result code, 0 when there is none */
    int32_t errorCode; /* the task error code, 0 when there is none; -5 (by the worker): analysis failed */
    RQText detailErrorText;
    RQText furtherText;
    /* Per-type data: RQTransferData (0), RQTranscodeData (1, 8, 30), RQReviewData (2), RQMd5Data (3, 4); NULL
     * for others, or when there is none. */
    const void* typeData;
} TaskInfo;

/* ---- what the worker gives to the plug-in -------------------------------------------------------
 */

/* Tells progress, from the perform call's thread, as often as the plug-in likes: `done` of `total` units.
 * With total 0 it is a sign of life: nothing moved, and nothing will for `done` seconds. While the task is
 * suspended the call does not return. `context` is the one given to RQWorkerPerformTask. Returns 0, or
 * 0xFFFFFFFF when the context is NULL. */
typedef uint32_t (*RQProgressCallback)(int64_t total, int64_t done, void* context);

/* A result that the worker copies: the list `kind` of the task's type gets one entry more. */
#define RQ_RESULT_MD5_FILE 1u         /* entry: RQMd5File */
#define RQ_RESULT_VERIFICATION 2u     /* entry: RQVerification */
#define RQ_RESULT_TRANSFER_OUTPUT 3u  /* entry: RQTransferOutput */
#define RQ_RESULT_TRANSCODE_OUTPUT 4u /* entry: RQTranscodeOutput */

/* Services that RQWorkerDescribe receives. The record and the functions live until the process ends; any
 * thread may call them; texts and entries given to them are copied before they return. After RQWorkerRelease
 * they do nothing. "The running task" is the one that RQWorkerPerformTask has been called for and has not
 * returned from. */
typedef struct RQHostServices {
    uint32_t size;
    uint32_t contractVersion; /* the worker's */
    void* context;            /* first argument of each function */

    /* Writes one line to the worker's log, under the plug-in's name. Level 1 milestone, 2 information, 3
     * warning, 4 failure, 5 must not occur; others are taken as the nearest. Line breaks in the text become
     * blanks. */
    void (*log)(void* context, int32_t level, RQText text);

    /* Waits until the running task is told to stop or `timeout_ms` have passed; returns the stop flag. For
     * waits that the plug-in would otherwise sleep through; any number of threads may wait. With no task
     * running it returns RQ_STOP_NONE after the time. */
    uint32_t (*waitForStop)(void* context, uint32_t timeout_ms);

    /* Sets the running task's error fields by copy: they are applied to the task information record when the
     * perform call returns or throws, and win over what the record then holds. The last call counts. With no
     * task running it does nothing. */
    void (*publishError)(void* context, uint32_t detailErrorCode, int32_t errorCode, RQText detailErrorText,
                         RQText furtherText);

    /* Adds one result entry by copy (RQ_RESULT_...) to the running task's, after those of the result lists.
     * 0, or -1 for an unknown kind, an entry that is NULL or too small, or with no task running. */
    int32_t (*publishResult)(void* context, uint32_t kind, const void* entry);

    /* Tells that no progress will come for `seconds` from now: a sign of life that any thread may give. */
    void (*quietFor)(void* context, uint32_t seconds);

    /* A folder for temporary files of this process, made at the first call, open to its owner only, and
     * removed with all that is in it after RQWorkerRelease (a worker that crashes leaves it). The text lives
     * until the process ends. Empty when the folder could not be made. */
    RQText (*temporaryFolder)(void* context);
} RQHostServices;

/* What RQWorkerDescribe returns. Lives until the process ends. */
#define RQ_ABILITY_PAUSE 1ull  /* calls the progress callback at least once a second while it works */
#define RQ_ABILITY_FINISH 2ull /* honours RQ_STOP_FINISH with a usable partial result */
#define RQ_ABILITY_UPDATE 4ull /* takes an update of the running task */
typedef struct RQPluginDescription {
    uint32_t size;
    uint32_t contractVersion; /* RQ_CONTRACT_VERSION of the plug-in's header; the worker refuses another */
    RQText name;              /* "md5" */
    RQText version;           /* "1.0.0" */
    const int32_t* types;     /* task types that it serves */
    uint32_t typeCount;
    uint32_t reserved;
    uint64_t abilities; /* RQ_ABILITY_... */
} RQPluginDescription;

/* ---- the exported functions ---------------------------------------------------------------------
 */

/* Fifth export, looked up after the four and called first. Thread: main. NULL is taken as "does not say". */
typedef const RQPluginDescription* (*RQWorkerDescribeFunc)(const RQHostServices* host);

/* Thread: main. `parameter` is a const RQRunningParameter* that lives until RQWorkerRelease; for worker type
 * 23 it is the zero-terminated text "actor.xml" instead, the name of the file to read them from, in the
 * current directory. 0 is success; any other value ends the worker, which logs it. RQWorkerRelease is called
 * in both cases. */
typedef int32_t (*RQWorkerInitFunc)(const void* parameter);

/* Reads a task text (UTF-8, borrowed for the call) and sets *taskInfo to the task's record. 0 is success. It
 * must set a record also when it fails (with the task ID when that much could be read): the worker writes the
 * error into it, error code -5 with the detail error text "Analyze Task Info Failed!", and leaves
 * `furtherText` alone: what the task text got wrong goes there, reaches the operator with the report, and
 * belongs into the log too (host service). Thread: main for a new task; link for an update, which may come
 * while RQWorkerPerformTask runs. */
typedef int32_t (*RQWorkerAnalyseTaskFunc)(RQText taskText, TaskInfo** taskInfo);

/* Does the task's work. Thread: main. Called only with a record whose latest analysis returned 0, or, after
 * an update between two calls that failed, with the record which that update left. `stopFlag` lives until the
 * process ends: read it with RQLoad32 at least every 100 ms (and every 8 MiB of data), and return soon when
 * it is not 0. Before returning the plug-in stores into TaskInfo.status: 0 when the task is done; 4 with the
 * error fields set when it failed; 5 after RQ_STOP_CANCEL; 0 after RQ_STOP_FINISH, with what is done;
 * never 3. The return value is not looked at: the status tells. */
typedef int32_t (*RQWorkerPerformTaskFunc)(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                           RQProgressCallback progress, void* context,
                                           const RQRunningParameter* parameter);

/* Frees what the plug-in holds. Thread: main; no other call follows. The library itself is never unloaded. */
typedef int32_t (*RQWorkerReleaseFunc)(void);

#ifdef __cplusplus
}
#endif

#endif /* RQWORKER_PLUGIN_H */
