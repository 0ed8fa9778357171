/* An example plug-in that keeps a computed value per request in the host's compute cache.
 *
 * The "expensive" computation is the square of a number. Several threads ask for the squares of
 * the same numbers at once; the cache computes each one once and hands the others the same
 * value. Written in C99 against the plug-in header only. */
#define _POSIX_C_SOURCE 200809L

#include "compute_plugin.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <jxcache/kqgp_compute_cache.h>
#include <jxcache/y_vx_suite.h>

#define EXAMPLE_CLASS "com.example.squares"

typedef struct SquareRequest {
  int n;
} SquareRequest;

typedef struct SquareValue {
  int n;
  long long square;
} SquareValue;

static const KQGP_ComputeCacheSuite1* gSuite = NULL;
static pthread_mutex_t gCountMutex = PTHREAD_MUTEX_INITIALIZER;
static int gComputes = 0;
static int gLiveValues = 0;

static void AddToCount(int* counter, int delta) {
  pthread_mutex_lock(&gCountMutex);
  *counter += delta;
  pthread_mutex_unlock(&gCountMutex);
}

static int ReadCount(const int* counter) {
  int value;
  pthread_mutex_lock(&gCountMutex);
  value = *counter;
  pthread_mutex_unlock(&gCountMutex);
  return value;
}

/* ---- the class's callbacks ---- */

static int32_t GenerateKey(void* request, KQGP_GUID* outKey) {
  const SquareRequest* r = (const SquareRequest*)request;
  memset(outKey, 0, sizeof *outKey);
  memcpy(outKey->bytes, &r->n, sizeof r->n);
  return 0;
}

static int32_t Compute(void* request, intptr_t* outValue) {
  const SquareRequest* r = (const SquareRequest*)request;
  SquareValue* v = (SquareValue*)malloc(sizeof *v);
  if (v == NULL) return 12; /* out of memory: our own code, handed back to our caller */
  v->n = r->n;
  v->square = (long long)r->n * r->n;
  AddToCount(&gComputes, 1);
  AddToCount(&gLiveValues, 1);
  *outValue = (intptr_t)v;
  return 0;
}

static size_t ApproxSize(intptr_t value) {
  (void)value;
  return sizeof(SquareValue);
}

static void DeleteValue(intptr_t value) {
  free((SquareValue*)value);
  AddToCount(&gLiveValues, -1);
}

/* ---- the plug-in's work ---- */

typedef struct WorkerArgs {
  int keys;
  int errors;
} WorkerArgs;

static void* Worker(void* p) {
  WorkerArgs* args = (WorkerArgs*)p;
  int n;
  for (n = 0; n < args->keys; ++n) {
    SquareRequest request;
    KQGP_JXComputeReceipt receipt = NULL;
    intptr_t value = 0;
    int32_t err;
    request.n = n;
    err = gSuite->ComputeIfNeededAndCheckout(EXAMPLE_CLASS, &request, true, &receipt);
    if (err != kKQGPComputeCacheNoError) {
      fprintf(stderr, "example plug-in: compute of %d failed with %d\n", n, (int)err);
      ++args->errors;
      continue;
    }
    if (gSuite->GetReceiptComputeValue(receipt, &value) != kKQGPComputeCacheNoError ||
        ((const SquareValue*)value)->square != (long long)n * n) {
      fprintf(stderr, "example plug-in: wrong value for %d\n", n);
      ++args->errors;
    }
    if (gSuite->CheckinReceipt(receipt) != kKQGPComputeCacheNoError) ++args->errors;
  }
  return NULL;
}

int ExamplePlugin_Run(int threads, int keys) {
  KQGP_ComputeCacheCallbacks callbacks;
  pthread_t ids[16];
  WorkerArgs args[16];
  const void* table = NULL;
  int errors = 0;
  int i;

  if (threads < 1 || threads > 16) return 1;
  if (Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table) != 0) {
    fprintf(stderr, "example plug-in: the compute cache suite is not published\n");
    return 2;
  }
  gSuite = (const KQGP_ComputeCacheSuite1*)table;

  callbacks.generate_key = GenerateKey;
  callbacks.compute = Compute;
  callbacks.approx_size_value = ApproxSize;
  callbacks.delete_compute_value = DeleteValue;
  if (gSuite->ClassRegister(EXAMPLE_CLASS, &callbacks) != kKQGPComputeCacheNoError) return 3;

  for (i = 0; i < threads; ++i) {
    args[i].keys = keys;
    args[i].errors = 0;
    if (pthread_create(&ids[i], NULL, Worker, &args[i]) != 0) return 4;
  }
  for (i = 0; i < threads; ++i) {
    pthread_join(ids[i], NULL);
    errors += args[i].errors;
  }
  /* Values stay in the cache (and are deleted by it) after the class is gone. */
  gSuite->ClassUnregister(EXAMPLE_CLASS);

  if (errors != 0) return 5;
  if (ReadCount(&gComputes) != keys) {
    fprintf(stderr, "example plug-in: %d computes for %d keys\n", ReadCount(&gComputes), keys);
    return 6;
  }
  printf("example plug-in: %d threads, %d keys, %d computes\n", threads, keys,
         ReadCount(&gComputes));
  return 0;
}

int ExamplePlugin_LiveValues(void) { return ReadCount(&gLiveValues); }
