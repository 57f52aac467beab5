#include "control/npipe.h"

#include "lib/heap.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"

namespace {

struct queued {
  char *bytes;  // owned copy
  int length;
  queued *next;
};

struct instance {
  HANDLE pipe;
  OVERLAPPED rd;  // connect and every read; its event is the read event
  OVERLAPPED wr;  // its event is the write event
  int state;
  int pending;  // a connect or read on rd has not been collected yet
  char buffer[NPIPE_BUFSIZE];
  queued *head;
  queued *tail;      // last entry, so that appending costs the same at any length
  int queued_count;  // entries and bytes of the queue, bounded by NPIPE_QUEUE_*
  long long queued_bytes;
};

instance *instances;
HANDLE *events;  // read, write event of each instance, in instance order
int ninstances;
HANDLE *waitarray;
DWORD waitcap;

// A client that sends an oversized message has written it whole before we see it, so
// the rest arrives at once; this bounds the wait for a client that stalls mid-message.
constexpr DWORD DRAIN_MS = 2000;

void drop_head(instance *in) {
  queued *q = in->head;
  if (!q) return;
  in->head = q->next;
  if (!in->head) in->tail = nullptr;
  in->queued_count--;
  in->queued_bytes -= q->length;
  xfree(q->bytes);
  xfree(q);
}

// Reads and drops the rest of a message after ERROR_MORE_DATA. false when the client
// went away or stalled; the caller then resets the instance.
bool drain(instance *in) {
  for (;;) {
    DWORD got = 0;
    if (!ReadFile(in->pipe, in->buffer, sizeof in->buffer, nullptr, &in->rd)) {
      DWORD e = GetLastError();
      if (e == ERROR_IO_PENDING) {
        if (WaitForSingleObject(in->rd.hEvent, DRAIN_MS) != WAIT_OBJECT_0) {
          kiv_count(WIRE_STAT_KIVD_HUNG_UP);
          CancelIo(in->pipe);
          GetOverlappedResult(in->pipe, &in->rd, &got, TRUE);
          return false;
        }
      } else if (e != ERROR_MORE_DATA) {
        return false;
      }
    }
    if (GetOverlappedResult(in->pipe, &in->rd, &got, FALSE)) return true;
    if (GetLastError() != ERROR_MORE_DATA) return false;
  }
}

}  // namespace

int npipe_setup_server(int count, const char *name, SECURITY_ATTRIBUTES *security) {
  static const char tag[] = "ntpipe.npipe_setup_server";
  if (instances) return KIV_EBUSY;
  if (count < 1) return KIV_ESYS;
  instances = static_cast<instance *>(kiv_zalloc(count * sizeof(instance), tag));
  events = static_cast<HANDLE *>(kiv_zalloc(2 * count * sizeof(HANDLE), tag));
  if (count > NPIPE_MAXINSTANCES) count = NPIPE_MAXINSTANCES;
  bool ok = instances && events;
  for (int i = 0; ok && i < count; i++) {
    instance *in = &instances[i];
    in->rd.hEvent = events[2 * i] = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    in->wr.hEvent = events[2 * i + 1] =
        in->rd.hEvent ? CreateEventA(nullptr, TRUE, FALSE, nullptr) : nullptr;
    if (!in->wr.hEvent) {
      kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to CreateEvent(): %d",
                   static_cast<int>(GetLastError()));
      ok = false;
      break;
    }
    in->pipe = CreateNamedPipeA(name, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, count,
                                NPIPE_BUFSIZE, NPIPE_BUFSIZE, NPIPE_TIMEOUT, security);
    if (in->pipe == INVALID_HANDLE_VALUE) {
      in->pipe = nullptr;
      kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to CreateNamedPipe(): %d",
                   static_cast<int>(GetLastError()));
      ok = false;
      break;
    }
    reset_pipe(i);
  }
  if (!ok) {
    for (int i = 0; instances && i < count; i++) {
      if (instances[i].pipe) CloseHandle(instances[i].pipe);
      if (instances[i].rd.hEvent) CloseHandle(instances[i].rd.hEvent);
      if (instances[i].wr.hEvent) CloseHandle(instances[i].wr.hEvent);
    }
    xfree(instances);
    xfree(events);
    instances = nullptr;
    events = nullptr;
    return KIV_ESYS;
  }
  ninstances = count;
  return 0;
}

int reset_pipe(int index) {
  static const char tag[] = "ntpipe.reset_pipe";
  instance *in = &instances[index];
  // Disconnecting first ends a write still in flight before its bytes are released.
  DisconnectNamedPipe(in->pipe);
  while (in->head) drop_head(in);
  in->state = NPIPE_LISTEN;
  KIV_LOG(3, tag, "%d -> LISTEN", index);
  if (ConnectNamedPipe(in->pipe, &in->rd)) {
    kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to ConnectNamedPipe(): TRUE");
    return KIV_ESYS;
  }
  DWORD e = GetLastError();
  if (e == ERROR_PIPE_CONNECTED) {
    in->pending = 0;
    SetEvent(in->rd.hEvent);
  } else if (e == ERROR_IO_PENDING) {
    in->pending = 1;
  } else {
    kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to ConnectNamedPipe(): %d",
                 static_cast<int>(e));
    return KIV_ESYS;
  }
  return 0;
}

int npipe_close(int pipe) {
  if (pipe >= 1 && pipe <= ninstances && instances[pipe - 1].state != NPIPE_LISTEN)
    reset_pipe(pipe - 1);
  return 0;
}

int npipe_wait(DWORD count, const HANDLE *handles, DWORD timeout, BOOL alertable,
               npipe_waitfunc wait, DWORD *index) {
  // Write completions restart the wait; the caller's time-out is a deadline, so a client
  // reading a long reply slowly cannot hold the caller's timer off.
  ULONGLONG deadline = GetTickCount64() + timeout;
  for (;;) {
    DWORD total = count + 2 * ninstances;
    if (waitcap < total) {
      xfree(waitarray);
      waitcap = 0;
      waitarray = static_cast<HANDLE *>(kiv_alloc(total * sizeof(HANDLE), "ntpipe.npipe_wait"));
      if (!waitarray) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        *index = WAIT_FAILED;
        return 0;
      }
      waitcap = total;
    }
    CopyMemory(waitarray, handles, count * sizeof(HANDLE));
    CopyMemory(waitarray + count, events, 2 * ninstances * sizeof(HANDLE));
    DWORD left = timeout;
    if (timeout != INFINITE) {
      ULONGLONG now = GetTickCount64();
      left = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
    }
    DWORD r = wait(total, waitarray, FALSE, left, alertable);
    if (r < count || r >= total) {
      *index = r;
      return 0;
    }
    DWORD k = r - count;
    if (k % 2 == 0) return static_cast<int>(k / 2) + 1;
    handle_write(static_cast<int>(k / 2));
  }
}

int handle_write(int index) {
  instance *in = &instances[index];
  for (;;) {
    drop_head(in);
    if (!in->head) {
      ResetEvent(in->wr.hEvent);
      return 0;
    }
    DWORD written = 0;
    if (WriteFile(in->pipe, in->head->bytes, in->head->length, &written, &in->wr)) {
      if (written == static_cast<DWORD>(in->head->length)) continue;
      return 0;
    }
    if (GetLastError() == ERROR_IO_PENDING) return KIV_EAGAIN;
    return 0;
  }
}

int npipe_read(int pipe, char *buffer, int size, int *connected) {
  static const char tag[] = "ntpipe.npipe_read";
  if (connected) *connected = 0;
  if (pipe < 1 || pipe > ninstances) return KIV_EINVAL;
  int i = pipe - 1;
  instance *in = &instances[i];
  int cap = size < NPIPE_BUFSIZE ? size : NPIPE_BUFSIZE;
  if (cap < 0) cap = 0;
  int result = KIV_EAGAIN;

  if (in->pending) {
    DWORD got = 0;
    if (!GetOverlappedResult(in->pipe, &in->rd, &got, FALSE)) {
      DWORD e = GetLastError();
      if (e == ERROR_IO_INCOMPLETE) return KIV_EAGAIN;
      if (e == ERROR_BROKEN_PIPE) {
        reset_pipe(i);
        return KIV_EOF;
      }
      if (e != ERROR_MORE_DATA || in->state != NPIPE_CONNECTED) {
        kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to GetOverlappedResult(): %d",
                     static_cast<int>(e));
        return KIV_ESYS;
      }
      // A message longer than the caller takes is refused whole: its rest is read and
      // dropped here so that the next message starts clean.
      in->pending = 0;
      if (!drain(in)) {
        reset_pipe(i);
        return KIV_EOF;
      }
      result = KIV_EOVERFLOW;
    } else {
      in->pending = 0;
      if (in->state == NPIPE_CONNECTED) {
        int n = static_cast<int>(got) < cap ? static_cast<int>(got) : cap;
        CopyMemory(buffer, in->buffer, n);
        result = n;
      }
    }
  }

  DWORD got = 0;
  bool gone = false;
  if (ReadFile(in->pipe, in->buffer, cap, &got, &in->rd)) {
    SetEvent(in->rd.hEvent);
    in->pending = 1;
  } else {
    DWORD e = GetLastError();
    if (e == ERROR_IO_PENDING) {
      in->pending = 1;
    } else if (e == ERROR_MORE_DATA) {
      // Completed at once but too long: collected, and drained, at the next wake-up.
      SetEvent(in->rd.hEvent);
      in->pending = 1;
    } else if (e == ERROR_BROKEN_PIPE) {
      // A client that sent its last message and hung up at once ("quit -Q" from a
      // script): the message is still delivered; its reply has nowhere to go.
      reset_pipe(i);
      gone = true;
      if (result < 0) result = KIV_EOF;
    } else {
      kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ESYS, "Failed to ReadFile(): %d",
                   static_cast<int>(e));
      result = KIV_ESYS;
    }
  }

  if (in->state == NPIPE_LISTEN && !gone) {
    in->state = NPIPE_CONNECTED;
    if (kiv_loglevel >= 3) {
      char status[NPIPE_MAXINSTANCES + 1];
      for (int k = 0; k < ninstances; k++) status[k] = " LC"[instances[k].state];
      status[ninstances] = '\0';
      kiv_log(nullptr, tag, "%d -> CONNECTED  [%s]", i, status);
    }
    if (connected) *connected = 1;
  }
  return result;
}

int npipe_write(int pipe, const char *bytes, int length) {
  static const char tag[] = "ntpipe.npipe_write";
  if (pipe - 1 < 0 || pipe - 1 >= ninstances || instances[pipe - 1].state != NPIPE_CONNECTED)
    return KIV_ENOTREADY;
  instance *in = &instances[pipe - 1];
  if (in->queued_count >= NPIPE_QUEUE_MESSAGES || in->queued_bytes + length > NPIPE_QUEUE_BYTES) {
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_EOVERFLOW,
                 "Client %d does not read its replies (%d queued): hung up", pipe - 1,
                 in->queued_count);
    kivev_event ev{};
    ev.id = KIVEV_PIPE_CLIENT_HUNG_UP;
    ev.count = in->queued_count;
    ev.size = static_cast<unsigned long>(in->queued_bytes);
    kivev_emit(&ev);
    kiv_count(WIRE_STAT_KIVD_HUNG_UP);
    reset_pipe(pipe - 1);
    return KIV_EOVERFLOW;
  }
  queued *q = static_cast<queued *>(kiv_zalloc(sizeof(queued), tag));
  if (!q) return KIV_ENOMEM;
  if (length > 0) {
    q->bytes = static_cast<char *>(kiv_alloc(length, tag));
    if (!q->bytes) {
      xfree(q);
      return KIV_ENOMEM;
    }
    CopyMemory(q->bytes, bytes, length);
  }
  q->length = length > 0 ? length : 0;
  in->queued_count++;
  in->queued_bytes += q->length;
  if (in->head) {
    in->tail->next = q;
    in->tail = q;
    return 0;
  }
  in->head = in->tail = q;
  DWORD written = 0;
  if (WriteFile(in->pipe, q->bytes, q->length, &written, &in->wr)) drop_head(in);
  return 0;
}

int npipe_state(int index) {
  return index >= 0 && index < ninstances ? instances[index].state : NPIPE_UNUSED;
}
