// The probe: public face of the event engine. The session core makes one instance, starts its
// worker threads, opens connections and one-shot timers, and gets every event through its own
// callback.
//
// Devices and timers are opaque handles. A handle names a slot and its use: after the device or
// timer is gone every call on the handle is harmless and finds nothing, also when the slot serves
// somebody else. Handles are not addresses and are never dereferenced; they end with their
// instance.
//
// Callbacks run on the worker threads, with no engine lock held; up to one per worker at a time,
// those of one device or timer never two at once. A callback may use every call here except where a
// call says that it must not. Calls marked "any thread" never wait for a callback.
#pragma once

#include <cstdint>

struct rac_core;        ///< one probe instance
struct rac_connection;  ///< a device: connection, listener or UDP socket
struct rac_timer;       ///< a one-shot timer

/// Callback of devices and timers: the `arg` given at creation, the handle, one of probe_event, one
/// of probe_kind. The result is ignored. It may come before the creating call has returned.
using probe_handler = int (*)(void *arg, void *handle, int event, int kind);
/// Hook function; the second argument is always 0.
using probe_hook = int (*)(void *arg, int zero);

enum probe_event : int {
  IOE_CONNECTED = 1,  ///< an outgoing connection is made; its read side is watched from here on
  IOE_CONNECT_FAILED = 2,  ///< it failed; nothing is watched, the caller removes the device
  IOE_ACCEPTED = 3,        ///< the handle is a new connection of a listener; nothing is watched yet
  IOE_READ = 4,            ///< readable (or closed by the peer); repeats until consumed or disabled
  IOE_WRITE = 7,           ///< writable; repeats until disabled
  IOE_TIMEOUT = 9,         ///< the timer expired
  /// The descriptor was closed behind the engine's back. Comes once; nothing is watched any more
  /// and the engine will not close that number. The caller removes the device.
  IOE_INVALID_DEV = 10,
};  // 5, 6 and 8 are reserved and never produced

enum probe_kind : int {
  PROBE_TCP_SERVER = 1,   ///< a TCP listener, and a connection accepted by it
  PROBE_TCP_CLIENT = 2,   ///< ConnectRemote2
  PROBE_TCP_ADOPTED = 4,  ///< an accepted connection after AcceptRemote2
  PROBE_UDP_SERVER = 8,   ///< ListenUDP3
  PROBE_UDP_CLIENT = 16,  ///< UDPClient
  PROBE_TIMER = 64,
};

enum probe_notify : uint32_t {
  PROBE_READ_ON = 2,
  PROBE_WRITE_ON = 4,
  PROBE_READ_OFF = 8,
  PROBE_WRITE_OFF = 16,
};

inline constexpr uint32_t PROBE_MAX_CONNECTIONS = 1024;  ///< devices, and one per worker thread
inline constexpr uint32_t PROBE_MAX_TIMERS = 512;
inline constexpr uint32_t PROBE_MAX_THREADS = 128;
/// At one time in a process. Descriptors may be short before: each worker takes two, one of them
/// below PROBE_MAX_FD (both, where the process may not have higher ones).
inline constexpr uint32_t PROBE_MAX_INSTANCES = sizeof(void *) > 4 ? 1024 : 64;
inline constexpr int PROBE_MAX_FD = 1024;  ///< descriptors of this number and above are refused

// --- Instance and threads ------------------------------------------------------------------------

/// A new instance with `nthreads` workers (clamped to 1..PROBE_MAX_THREADS), not yet running. The
/// first argument is not used. NULL if the pools cannot be made; ends the process with exit status
/// 2 if a worker's base cannot. Free it with probe_cleanup.
rac_core *probe_init(int reserved, uint32_t nthreads);

/// As probe_init, but returns NULL on every failure.
rac_core *probe_create(uint32_t nthreads);

/// Starts the workers (named "c2ms-0", "c2ms-1", ...; all signals blocked). With `nowait` (low
/// byte) non-zero returns at once, otherwise when StopProbe has ended them. If they run already: 0
/// at once with `nowait`, otherwise waits for their end; the latest `nowait` decides whether
/// StopProbe waits. -1 for NULL. -2 in a callback of this instance, which is part of the run that
/// would have to end first; only with `nowait`, while the workers run, it is 0 there too. Works
/// again after StopProbe; devices and timers live on across the pause. Exit status 2 if a thread
/// cannot be made.
int StartProbe(rac_core *core, int nowait);

/// StartProbe(core, 1) for programs that must not end: -3 if a thread cannot be made; then none
/// runs.
int probe_start(rac_core *core);

/// Tells the workers to end and, when the latest StartProbe had `nowait`, waits for that. A
/// callback may call it too; it does not wait then, and the instance is started again from another
/// thread. -1 for NULL, 0 otherwise (at once if stopped already).
int StopProbe(rac_core *core);

/// Stops the workers, closes every device that is still open, without callbacks, and frees all. 0,
/// also for NULL. No other call on the instance may be under way, a waiting StartProbe included.
int probe_cleanup(rac_core *core);

/// Waits until every callback and hook that the workers were running at the time of the call is
/// over and every earlier RemoveDevice has been carried out. So: RemoveDevice or StopTimer, then
/// probe_barrier, then the memory behind their `arg` may be freed. Returns at once when the workers
/// do not run. As long as the longest callback; hold no lock that a callback takes. 0; -1 for NULL;
/// -2 when called from a callback (it would wait for itself).
int probe_barrier(rac_core *core);

// --- Devices: any thread -------------------------------------------------------------------------
// `para` is a word of the caller's, read back with GetDevicePara. `result`, if not NULL, is -1 on
// failure and 0 on success. NULL on failure: no socket, a descriptor of PROBE_MAX_FD or above, no
// free slot; all that was opened is closed again and the callback never comes.

/// Starts a TCP connection to the 32-bit network-order address at `address` and `port`. The outcome
/// always comes as IOE_CONNECTED or IOE_CONNECT_FAILED; a hanging attempt is the caller's to time.
rac_connection *ConnectRemote2(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                               int *result, probe_handler handler, void *arg);

/// The same on the worker of the given number (modulo their number): connections that belong
/// together cost one wake-up between them when several are ready.
rac_connection *ConnectRemoteAt(rac_core *core, uint32_t worker, const void *address, uint16_t port,
                                uintptr_t para, probe_handler handler, void *arg);

/// Listens on TCP `port` of every local address (0: the system chooses one; see
/// GetDeviceLocalPort). Connections come as IOE_ACCEPTED with kind PROBE_TCP_SERVER and the
/// listener's para, handler and arg. Without a free slot, operation slot or descriptor accepting
/// pauses until a slot is free or 100 ms have passed; clients wait in the system's queue meanwhile.
rac_connection *ListenRemote2(rac_core *core, uint16_t port, uintptr_t para, int *result,
                              probe_handler handler, void *arg);

/// Gives an accepted connection its own para, handler and arg; its kind becomes PROBE_TCP_ADOPTED.
/// Returns `device`, or NULL if it was adopted before or is gone. The read side stays unwatched:
/// the caller enables it with SetNotify. NULL core or device aborts. Best called from the
/// IOE_ACCEPTED callback.
rac_connection *AcceptRemote2(rac_core *core, rac_connection *device, uintptr_t para, int *result,
                              probe_handler handler, void *arg);

/// A UDP socket on the local address at `address` (NULL: any) and `port`, watched by every worker:
/// each has a device of its own on it, so that several callbacks may run for one socket and one may
/// find the datagram taken by another. Takes one descriptor and one slot for each worker. Returns
/// the last of these devices; removing any removes all.
rac_connection *ListenUDP3(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                           int *result, probe_handler handler, void *arg);
/// ListenUDP3 on any local address.
rac_connection *ListenUDP2(rac_core *core, uint16_t port, uintptr_t para, int *result,
                           probe_handler handler, void *arg);

/// A UDP socket, connected to the peer when the address at `address` and `port` are both non-zero.
rac_connection *UDPClient(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                          int *result, probe_handler handler, void *arg);

/// Has the device closed by its worker. No callback begins after this returns; one that runs may
/// still be at work (see probe_barrier). Never fails for want of a resource. -1 for NULL; 0
/// otherwise, also when the device is being removed or gone.
int RemoveDevice(rac_connection *device);

/// Turns watching on and off; `mask` is of probe_notify. On the device's own worker (in its
/// callback) it takes effect at once; from any other thread it is queued to that worker, and one
/// more callback of the old kind may come. A listener that is switched off stops accepting;
/// switched on again it gives IOE_READ, and its owner accepts by himself (meant). -1 for NULL, a
/// device that is gone, on and off together, or no free operation slot (512 outstanding); otherwise
/// 0.
int SetNotify(rac_connection *device, uint32_t mask);

/// Descriptor of the device: 0 for NULL, -1 when it is gone. The engine keeps owning it.
int GetDeviceFD(rac_connection *device);
/// The caller's word; 0 for NULL and when the device is gone.
uintptr_t GetDevicePara(rac_connection *device);
/// Stores the word. Always 0.
int SetDevicePara(rac_connection *device, uintptr_t para);
/// Peer and local address (network order) and port (host order). 0 for NULL, a device that is gone
/// or not connected; the local port alone is 65535 for NULL and a device that is gone.
uint32_t GetDeviceRemoteIP(rac_connection *device);
uint16_t GetDeviceRemotePort(rac_connection *device);
uint32_t GetDeviceLocalIP(rac_connection *device);
uint16_t GetDeviceLocalPort(rac_connection *device);

/// TCP connections in use; -1 for NULL. Removing a listener or UDP device lowers this count
/// although it was never raised, so it can turn negative. Kept for compatibility: for monitoring
/// only.
int GetDeviceTCPNum(rac_core *core);

// --- Timers: any thread --------------------------------------------------------------------------

/// Starts a one-shot timer: handler(arg, timer, IOE_TIMEOUT, PROBE_TIMER) on a worker once `msec`
/// (clamped to 2^31 - 1) have passed on the monotonic clock, less at most 1 ms; equal deadlines on
/// one worker in order of start. `cmd` and `para` are words of the caller's. NULL for a NULL core
/// or with PROBE_MAX_TIMERS in use. A callback that starts its own timer again (the same cmd, para,
/// handler and arg) always gets it, once in each run, however many are in use.
rac_timer *StartTimer2(rac_core *core, uint32_t msec, uint32_t cmd, uintptr_t para,
                       probe_handler handler, void *arg);

/// Stops and releases the timer; afterwards its callback does not begin. Nothing happens if the
/// callback is running (the engine releases the timer after it), or the timer is gone. Always 0.
int StopTimer(rac_timer *timer);

/// The caller's words; 0 for NULL and for a timer that is gone.
uint32_t GetTimeoutCmd(rac_timer *timer);
uintptr_t GetTimeoutPara(rac_timer *timer);

// --- Hook: any thread ----------------------------------------------------------------------------

/// Sets the instance's one hook: on each turn of a worker's loop, after its events, and on each
/// DrivePump, check(check_arg, 0) is called and, if that is above 0, pump(pump_arg, 0). Several
/// workers may run it at once. A hook is no wake-up: sleeping workers stay asleep. -1 for NULL
/// core, else 0.
int RegisterHook(rac_core *core, probe_hook check, void *check_arg, probe_hook pump,
                 void *pump_arg);

/// Clears the hook; a run that has begun may still be at work (see probe_barrier). -1 for NULL
/// core, else 0.
int RemoveHook(rac_core *core);

/// Clears the hook only if its `check_arg` is this one: 0, 1 if it was another's or none, -1 for
/// NULL core.
int RemoveHookOf(rac_core *core, const void *check_arg);

/// Runs check and pump on the calling thread. -1 for NULL or without a complete hook, else 0.
int DrivePump(rac_core *core);

// --- Statistics monitor --------------------------------------------------------------------------

/// Appends a report of threads, connections and timers to the file `filename` every `ms`. 0, also
/// if it is on already; -1 if the file cannot be opened or no timer is free. Aborts for NULL and
/// for a period of 1000 ms or less. It runs until probe_cleanup; `filename` must live as long.
int probe_set_profile_monitor(rac_core *core, const char *filename, uint32_t ms);

/// The monitor's timer callback: writes one report and starts the next period. 0, or -1 if the
/// monitor is off or the time cannot be read.
int profile_pump(void *core, void *timer, int event, int kind);
