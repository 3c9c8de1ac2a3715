// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Varnix: key/value tables that the processes of a device, and the devices of one local network, share.
//
// Set rows in named tables, watch single keys or whole tables, and let one thread wait on many watchers. The tables of
// a named database are shared once the database has a sharing group: its members find each other by UDP broadcast on
// port 1975, connect over TCP, and each watches what the others write.
//
//   std::shared_ptr<Varnix::Table> status = Varnix::MakeSharedTable("plant", "status");
//   Varnix::SetSharingGroup("plant", "line-4", "press-2", "controller", 0);
//   std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({status->WatchAll()});
//   status->Set({"temperature", "81"});
//   for (;;) {
//     std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> change = changes->Wait();
//     std::printf("%s is %s\n", change.first.first.c_str(), change.first.second.c_str());
//   }
//
// What holds for everything below
//
// Threads: every function and method may be called from any thread, also while main returns or exit() runs, but not
//   from a log hook. As with any object, what one thread destroys no other may be calling; but a set whose last
//   reference goes while a thread waits in it lives on until that wait ends.
// Ownership: objects live as long as a std::shared_ptr to them. A watcher keeps its table alive, a set its watchers;
//   nothing is kept the other way round. Databases, with all their tables, live until the process exits.
// Waiting: no call waits for a peer.
//
//   call                                waits for
//   WatcherSet::Wait, WaitUntil         a change; the second for no longer than to its deadline
//   SetSharingGroup, StopSharing        the end of all threads of the sharing that it replaces, or stops
//   GetSharingGroup                     a SetSharingGroup or StopSharing of the same database that is running
//   NetworkChanged                      every SetSharingGroup and StopSharing that is running
//   calls that name a database          a NetworkChanged, or a fork(), that is waiting for those
//   SetLoggingFunction                  a call of the hook that is running
//   exit(), the return from main        the end of all threads of the library, and a call of the hook that is running
//   fork()                              calls that are in progress, and a call of the hook that is running
//   all of them, and everything else    short, bounded work of other threads under a lock; and the log hook, which runs
//                                       inside most calls, one call of it at a time: while it waits, they all wait
//
// Strings: names, keys and values are byte strings; zero bytes and the empty string are ordinary. (Log messages show
//   them up to the first zero byte.)
// Memory: a table keeps each key with its last value; a shared table keeps what is set here twice. Watchers keep none.
// Errors: only GetSharingGroup and GetDescriptor report through their results. std::bad_alloc and, when a lock fails,
//   std::system_error can leave any call, and so can what a log hook throws. Such a call has left nothing locked, and
//   its table, watcher or set as it was. A call of several steps may have done the first of them: Set of a shared table
//   may have handed the row to the peers and not to the watchers here, a call that names a new database or table may
//   have made it, and SetSharingGroup or StopSharing may have ended the sharing.
// Abort: these are logged and end the process with abort(): a socket or pipe that cannot be made or prepared while
//   sharing is set up (for want of descriptors, say), a socket or stdio stream that cannot be made for a peer later, a
//   poll() that fails, and a send for which the system has no memory although it has said that there is room. The last
//   two can hardly happen.
// Exit: once the library's own exit-time destructors have run, tables and watchers still work; log messages are
//   dropped until a hook is set anew, GetLocalTables() is empty, and databases begin anew and are shared with nobody.
// Fork: a child that does not exec has its own copies of tables, watchers and sets, and is a process like any other.
//   It may share, also the same database in the same group, under an identity of its own. What its parent shares stays
//   with the parent: the child sends and logs nothing of it and keeps none of its descriptors (those of GetDescriptor()
//   included), GetSharingGroup says false, and peer tables show all peers as gone. A thread must not hold a lock across
//   fork() that the log hook takes: both would wait for ever. Do not fork in a signal handler, which may have
//   interrupted a call; posix_spawn() runs there. Of a parent with other threads, the child may rely on no lock of the
//   program's own or of another library's.
// Exec: every descriptor is closed on exec, from the moment it is made.
// Signals: no handler and no mask is changed, and SIGPIPE is never raised. The library's threads inherit the signal
//   mask and the scheduling of the thread that calls SetSharingGroup; a thread for a peer that had to wait for room may
//   have those of a call for another database. A handler of the program may run on them, and those that serve peers
//   have 256 KiB of stack: if this is too little, block its signal during each such call.
//
// Limits of what is shared (rows that never leave the process have none)
//
//   table name       at most 255 bytes; a longer one arrives cut to 255, so names should differ within these
//   combined key     1 + table name + key at most 4,095 bytes; a longer one is cut to its length modulo 4,096, and one
//                    whose length is an exact multiple of 4,096 spoils the stream to every peer: stay below
//   value            at most 1,048,575 bytes; a longer one is cut to its length modulo 1,048,576
//   empty value      leaves this device only together with the next row
//   group name       1 to 254 bytes; an empty or longer one meets nobody
//   database name    1 to 4,095 bytes; with any other, members never meet
//   device, process  device at most 255 bytes (more are cut), both together at most 1,048,574; and they must differ
//                    between any two members of a group, or those two never meet
//   peers            at most 1,024 of each direction in a process, and no more than 3/8 of its limit of
//                    descriptors. A member counts once for each database that both share. One that finds no room
//                    is tried as soon as there is room, for 30 seconds, and again at each announcement
//
// A row whose combined key or value is longer is set here all the same, with a log line of level Warning
// ("tblcmbn.set.long").
//
// A peer that loses power while nothing is written is not noticed by the side that sends: set one small row now and
// then. There is no deletion, no authentication and no encryption: share on a network that you trust.

#ifndef VARNIX_H_
#define VARNIX_H_

#include <chrono>
#include <cstdarg>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// The version of the library that this header belongs to.
#define VARNIX_VERSION_MAJOR 1
#define VARNIX_VERSION_MINOR 0
#define VARNIX_VERSION_PATCH 0

#define VARNIX_EXPORT __attribute__((visibility("default")))

namespace Varnix {

/// A key and its value, in this order. Any bytes, any length; see above for what can be shared.
using Row = std::pair<std::string, std::string>;

/// How serious a log message is; numbered as the syslog severities, so it can be cast to int and given to vsyslog().
/// The library itself uses Error, Warning, Info and Debug; a hook must take any value.
enum class LogLevel : int {
  Emergency = 0,
  Alert = 1,
  Critical = 2,
  Error = 3,    ///< a system call failed; the message mostly ends in its errno
  Warning = 4,  ///< a row was set that is too long for peers
  Notice = 5,
  Info = 6,  ///< trouble with one peer that the library deals with: retrying, giving up
  Debug = 7  ///< life cycle and traffic: every row set, every watch, every connection
};

/// Replaces the log hook, which gets every message as level, tag, printf format and arguments. The tag names the place
/// ("tbl.set.ins", "tblsvr.dscv.poll"), so that messages can be filtered by prefix. At start the hook prints messages
/// of level Error to standard error, by perror(), and drops all others. An empty `fn` silences the library, errors
/// included; nothing brings the first hook back.
///
/// Threads: hook calls never overlap, and come from callers' threads and from the library's own, of which those that
///   serve peers have 256 KiB of stack for it.
/// Ownership: the hook is copied. The previous one is destroyed before this returns, the last one at process exit.
/// Errors: what a hook throws leaves the exported function that was logging. On one of the library's own threads it
///   ends the process, or, while a peer is being served, the stream to that peer.
/// A hook should not wait: until it returns, nearly every call of this library waits, on every thread. It must not call
/// this library and must not own objects of it (it would wait for itself), must not call exit() or fork without exec
/// (use posix_spawn(): before glibc 2.36, a fork() here and one on another thread may wait for each other for ever),
/// must not keep the strings or the list, and must not use objects that are destroyed before the library, such as
/// static objects of the program. If its code is in a plugin, another hook must be set before dlclose().
VARNIX_EXPORT void SetLoggingFunction(std::function<void(LogLevel, const char*, const char*, va_list)> fn);

/// Reports the changes of one key, or of a whole table, to one consumer.
///
/// A watcher keeps no queue: many changes of one row before it is read are reported once, with the newest value. So its
/// memory is bounded, and a reader that is slow loses intermediate values, never the last one. A row set to the value
/// that it already has is not a change.
class VARNIX_EXPORT Watcher {
 public:
  virtual ~Watcher();

  /// Takes the next change: a list of exactly one row, or an empty list when nothing is pending. Never sleeps.
  /// The value is that of now, not that of the moment of the change.
  virtual std::vector<Row> GetChanges() = 0;
};

/// A map from key to value whose rows can be set and watched, but neither removed nor read directly.
class VARNIX_EXPORT Table {
 public:
  virtual ~Table();

  /// Inserts the row, or replaces the value of the row with the same key, and wakes the threads that wait for it.
  /// Setting the value that the row already has changes nothing, and wakes nobody.
  /// A shared table hands the row to its peers as well; that happens on other threads, and never delays this call.
  virtual void Set(const Row& row) = 0;

  /// A watcher of one key. If the key has a row already, its value is the first change.
  virtual std::shared_ptr<Watcher> Watch(const std::string& key) = 0;

  /// A watcher of every row. It reports first the rows that are there, in the order of their last change, oldest first,
  /// then every further change in the order in which it was made.
  virtual std::shared_ptr<Watcher> WatchAll() = 0;
};

/// Lets threads sleep until one of several watchers has a change. Made by MakeWatcherSet().
///
/// Threads: several may wait on one set; each change goes to one of them. A watcher may be in several sets and may also
///   be read directly: each of its changes is taken once, by whoever comes first.
class VARNIX_EXPORT WatcherSet {
 public:
  virtual ~WatcherSet();

  /// Sleeps until a member has a change, takes it, and returns it with the watcher that had it. No order is promised
  /// between the changes of different watchers: where one has changes without a pause, ask another one, which must not
  /// be kept waiting, by its GetChanges(), too. To end a thread that waits, put a watcher of a table of your own into
  /// the set and set a row there; not in a signal handler, because Set() takes locks.
  virtual std::pair<Row, std::shared_ptr<Watcher>> Wait() = 0;

  /// As Wait(), but gives up at the deadline, a point on the monotonic clock, and then returns an empty row and a null
  /// watcher. A past deadline means "do not sleep"; any deadline is fine, time_point::max() included.
  virtual std::pair<Row, std::shared_ptr<Watcher>> WaitUntil(const std::chrono::steady_clock::time_point& deadline) = 0;
};

/// A new, empty table of this process alone. Names need not be unique: two calls make two tables.
/// Names that begin with "_vrx_." are the library's own.
VARNIX_EXPORT std::shared_ptr<Table> MakeTable(std::string name);

/// The tables of this process that are alive, each with its name, in no particular order; the library's own, whose
/// names begin with "_vrx_.", included.
VARNIX_EXPORT std::vector<std::pair<std::string, std::shared_ptr<Table>>> GetLocalTables();

/// A set of the given watchers, which it keeps alive. Null pointers and watchers that are not this library's are left
/// out; one given twice is one member. A set without members never has a change.
VARNIX_EXPORT std::shared_ptr<WatcherSet> MakeWatcherSet(std::vector<std::shared_ptr<Watcher>> watchers);

/// For event loops: a descriptor that poll(), select() or epoll find readable, level-triggered, exactly while a change
/// is pending in the set. When it is, take changes by WaitUntil() with a past deadline until there are no more. Nobody
/// else reads or writes it, or closes it: it is closed with the set. It is made at the first call, close-on-exec, and a
/// forked child calls this again for one of its own. Sets without one pay nothing for it.
/// Errors: -1 with errno when there is none to be had (EMFILE, for instance), and with EINVAL when `set` is null or not
///   this library's; std::bad_alloc.
VARNIX_EXPORT int GetDescriptor(const std::shared_ptr<WatcherSet>& set);

/// The table that lists the databases of this process: one row each, with the name as key and an empty value. It is
/// there to be watched, not to be set. A database is made when GetTableTable, GetPeerTable, MakeSharedTable or
/// SetSharingGroup first names it.
VARNIX_EXPORT std::shared_ptr<Table> GetDatabaseTable();

/// The table that lists the tables of a database: one row each, with the name as key and an empty value, for the tables
/// made here and for those that peers have sent rows of. It is there to be watched, not to be set.
VARNIX_EXPORT std::shared_ptr<Table> GetTableTable(std::string database);

/// The table of the members from whom this process receives rows of the database: key "DEVICE::PROCESS", value
/// "ADDRESS:PORT" while the stream from that member lives, and "" after it has ended: at once when the member ends,
/// within about 4 seconds when its power or its network is cut. It is there to be watched, not to be set, also before
/// the database is shared. It is made at the first call; members that have gone before are not in it. A member comes in
/// as soon as it has been told our group. One that then ends the stream is in it for a moment, like one without rows.
VARNIX_EXPORT std::shared_ptr<Table> GetPeerTable(std::string database);

/// A table of a database. All handles of the same database and table are handles of one table: what is set through one,
/// or by a peer, is seen by the watchers of all. It may be made, set and watched before or after SetSharingGroup();
/// rows that were set before are shared then. Two threads, or two peers, that set one key at the same moment may leave
/// different members with different last values: let each key have one writer.
VARNIX_EXPORT std::shared_ptr<Table> MakeSharedTable(std::string database, std::string table);

/// Shares the database with the members of `group` on the local network, from now until the process exits,
/// StopSharing() or the next call for this database. Those share that name the same database and the same group. There
/// may be any number of members on one device or on many.
///
/// device, process: who we are. No two members may have the same pair. Both are only compared, logged and shown in peer
///   tables.
/// broadcast_address: where announcements are sent: an IPv4 address in network byte order, such as the s_addr of
///   inet_aton(). 0 stands for 255.255.255.255, which needs a route and leaves by one network only; a network's own
///   broadcast address chooses that network; 127.255.255.255 stays on this device. With an address that is no broadcast
///   address, such as 127.0.0.1, only one member there hears the announcements, and perhaps nobody meets.
/// Waits: if the database was shared already, until all threads of that sharing have ended, also when nothing changes.
///   Peers are met again at their next announcement, up to 60 seconds later, or sooner through their own connections;
///   call NetworkChanged() to bring the group together in seconds.
/// Give each database a group of its own: at each announcement all databases of its group connect.
/// Errors: what is thrown before the old sharing is ended (std::bad_alloc, std::system_error, or by a log hook at the
///   first line, "tblcmbn.sharing") leaves that as it was. A log hook that throws at the last line
///   ("tblcmbn.sharing.svr") leaves the new sharing; anything else that is thrown, the database unshared.
///   System calls that fail are logged and end the process with abort().
VARNIX_EXPORT void SetSharingGroup(std::string database, std::string group, std::string device, std::string process,
                                   unsigned broadcast_address);

/// Ends the sharing of the database, as SetSharingGroup ends the one before, and starts none. Its tables stay. A later
/// SetSharingGroup shares them again. For a database that is not shared it only logs the call ("tblcmbn.stop"); for one
/// that is not known it does nothing, and makes none.
VARNIX_EXPORT void StopSharing(std::string database);

/// Whether the database is shared and, if it is, its settings; if it is not, the outputs are left as they are. Never
/// makes a database. `broadcast_address` may be null; it gets 4294967295 for 255.255.255.255, also when that was asked
/// for by 0. The address is in network byte order.
VARNIX_EXPORT bool GetSharingGroup(std::string database, std::string& group, std::string& device, std::string& process,
                                   unsigned* broadcast_address);

/// Tells every shared database that the network has changed (a link came up, an address is new): it announces itself at
/// once and again 2, 4 and 6 seconds later. Does not wait for that.
VARNIX_EXPORT void NetworkChanged();

}  // namespace Varnix

#endif  // VARNIX_H_
