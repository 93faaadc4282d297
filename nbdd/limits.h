#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Every bound on what files, clients and time can make the service hold or wait for, with its reason.
namespace Nbdd::Limits {

// Configuration and state.

/// Longest configuration file: a thousand times what a sensible one takes, and still parsed in milliseconds.
inline constexpr std::size_t configurationLength = std::size_t{64} * 1024;

/// Addresses in `listen`. Each takes a listening socket; no host has more addresses worth naming one by one.
inline constexpr std::size_t listenAddresses = 64;

/// Exports that one service holds: ten times what it is measured with. Every change writes the whole state
/// file, so this also bounds how long a change takes.
inline constexpr std::size_t exports = 100'000;

/// Longest state file. An export takes some 250 bytes, so the bound above needs 25 MB; long paths may take
/// ten times that.
inline constexpr std::size_t stateLength = std::size_t{256} * 1024 * 1024;

/// Longest name of an export in bytes: the NBD protocol's own bound on strings.
inline constexpr std::size_t exportNameLength = 4096;

/// Longest node path in bytes: PATH_MAX without its NUL.
inline constexpr std::size_t nodePathLength = 4095;

// Log.

/// Lines of one kind within one window; the others are counted and said to have been left out.
inline constexpr std::uint64_t logLinesPerKind = 20;
inline constexpr std::chrono::seconds logWindow{10};

/// Longest line: foreign text in it is at most a few names of 4096 bytes; more helps nobody.
inline constexpr std::size_t logLineLength = std::size_t{8} * 1024;

/// Size at which the log file of a service started on demand is put aside; one predecessor is kept.
inline constexpr std::size_t logFileLength = std::size_t{1024} * 1024;

// Time.

/// How long a service that was started on demand stays when there is nothing to do.
inline constexpr std::chrono::seconds idleTime{30};

/// How long a starting service waits for one that is ending to let go of their directories, and how often it
/// looks. Whoever started it has little patience himself.
inline constexpr std::chrono::milliseconds lockPatience{200};
inline constexpr std::chrono::milliseconds lockRetry{10};

/// Waits before a control socket that has gone from the file system is made anew, doubling while it cannot
/// be. The first leaves whoever takes its directory away the time to finish; the longest is how long an
/// operator may find nobody after his runtime directory has come back.
inline constexpr std::chrono::milliseconds controlRetryFirst{100};
inline constexpr std::chrono::milliseconds controlRetryLongest{2'000};

/// How long a starting service waits in all for nodes that a killed predecessor still holds. Whoever starts
/// it on demand waits a second.
inline constexpr std::chrono::milliseconds restorePatience{500};

/// The shortest time between two looks at whether there is anything to do.
inline constexpr std::chrono::milliseconds idleLook{100};

/// How long the end of the service waits for running requests after the first signal.
inline constexpr std::chrono::seconds shutdownTime{20};

/// Waits between two attempts to listen again after a restart: from the first to the longest, doubling.
inline constexpr std::chrono::milliseconds listenRetryFirst{500};
inline constexpr std::chrono::milliseconds listenRetryLongest{30'000};

// Connections of NBD clients.

/// Open connections, those in the handshake included. Ten thousand idle ones shall stand; more than this
/// many is a mistake or an attack, and the excess is closed at once.
inline constexpr std::size_t connections = 16 * 1024;

/// Connections that wait to be accepted; the kernel cuts it down to its own limit.
inline constexpr int listenBacklog = 4096;

/// How long a client may take from its connection, or from the last option that it was granted, to the next.
/// A client that asks for each of hundreds of exports is slow, not hostile; one that asks for nonsense gains
/// no time. What it waits for our own arithmetic of TLS is not its time.
inline constexpr std::chrono::seconds handshakeTime{30};

/// How long an ended session may take to send its last replies to a client that does not read, and one whose
/// client has ended its side, when another client waits for that.
inline constexpr std::chrono::seconds lastRepliesTime{5};

/// How long a session that has ended waits for the client to end its side too.
inline constexpr std::chrono::seconds lingerTime{1};

/// Bytes taken from a connection in one turn of the loop: some sixty writes of 4 KiB.
inline constexpr std::size_t inputBatch = std::size_t{256} * 1024;

/// Bytes of replies that one turn collects before it sends.
inline constexpr std::size_t replyBatch = std::size_t{256} * 1024;

/// Replies that wait for a slow reader: beyond this much memory none of its requests is begun. With the
/// turn's batch on top a stalled connection holds half a megabyte.
inline constexpr std::size_t pendingReplies = std::size_t{256} * 1024;

/// Requests of one connection that wait for storage at the same time. Deeper queues make no disk faster.
inline constexpr std::size_t requestsInFlight = 256;

/// Data of one connection's requests that wait for storage: 32 of 256 KiB. A single larger one is served
/// alone.
inline constexpr std::size_t connectionPayload = std::size_t{8} * 1024 * 1024;

/// The same for all connections of one worker together, the replies that clients have not read yet included.
/// The rest waits its turn.
inline constexpr std::size_t workerPayload = std::size_t{512} * 1024 * 1024;

/// A client that makes no use of memory out of that budget for so long is disconnected: it has begun to send
/// the data of a write and goes silent, or lets a reply lie unread.
inline constexpr std::chrono::seconds stallTime{60};

/// While others wait for the budget, whoever holds some of it must move on: at least so many bytes in every
/// such period, far below what any network worth a block device carries.
inline constexpr std::chrono::seconds contendedPeriod{2};
inline constexpr std::size_t contendedProgress = std::size_t{128} * 1024;

/// The data of a large write reserve their memory once this much has arrived: to announce them costs the
/// client nothing, and so must not hold up others.
inline constexpr std::size_t payloadFirstPiece = std::size_t{256} * 1024;

/// What one CACHE prefetches at most: it is a hint, and whoever hints at a whole disk shall neither occupy it
/// nor push everybody else's data out of memory.
inline constexpr std::uint64_t prefetchLength = std::uint64_t{64} * 1024 * 1024;

/// What one WRITE_ZEROES writes at most where the storage cannot make zeroes by itself: no request could ask
/// for more before lengths had 64 bits, and 32 bytes shall not begin a day's work.
inline constexpr std::uint64_t zeroesWritten = std::uint64_t{4} * 1024 * 1024 * 1024;

/// Extents looked for in one BLOCK_STATUS request; the client asks again where the answer ends.
inline constexpr std::size_t extentsPerReply = 8192;

/// Runs of data of one export whose ends are remembered. An image has a few dozen of a size worth it; whoever
/// has more goes on with the runs that he is at.
inline constexpr std::size_t knownDataRuns = 1024;

/// Threads for calls that block, in all: as many requests a disk sees at once without io_uring.
inline constexpr std::size_t poolThreads = 64;

// Compressed transfers.

/// Plain bytes in one compressed block: zstd finds little more in larger ones, and a block is a fraction of a
/// millisecond of work. A peer may ask for smaller ones.
inline constexpr std::uint32_t compressionBlock = 128 * 1024;

/// Transfers below this size go plain: a packet is sent for them anyhow.
inline constexpr std::uint32_t compressionSmallest = 2048;

/// Up to this size a transfer is compressed or expanded on the loop of its connection; larger ones would keep
/// other connections waiting, and go to a thread of the pool.
inline constexpr std::uint32_t compressionInline = 32 * 1024;

/// A transfer goes compressed if that saves at least one byte in so many.
inline constexpr std::uint32_t compressionWorth = 16;

/// Blocks that look like noise, or could not be made smaller, are passed over: from one up to so many in a
/// row, doubling, before the next is tried all the same.
inline constexpr std::uint32_t compressionPassedOver = 64;

/// Bytes that wait for the network until blocks are compressed thoroughly rather than quickly: at 1 Gbit/s it
/// is busy for 2 ms, and several transfers are compressed meanwhile.
inline constexpr std::size_t compressionBacklog = std::size_t{256} * 1024;

/// Plain bytes of writes that an import compresses before it sends what it has.
inline constexpr std::size_t importCompressBatch = std::size_t{256} * 1024;

// Who may come, and how it is proved.

/// Networks in one allow list: more than that are a firewall's business.
inline constexpr std::size_t allowedNetworks = 256;

/// Exports with an allow list of their own. The list of all of them is looked at when a client asks for one.
inline constexpr std::size_t restrictedExports = 1024;

/// One file of a certificate, its key or its authorities: the authorities of a whole system take 250 KB.
inline constexpr std::size_t tlsFileLength = std::size_t{1024} * 1024;

/// Pre-shared keys of one server, and the names of clients that may come.
inline constexpr std::size_t tlsKeys = 4096;
inline constexpr std::size_t tlsClients = 1024;

/// Longest name of a client, in bytes: GnuTLS keeps no more of the name of a key.
inline constexpr std::size_t tlsNameLength = 128;

/// Pre-shared keys in bytes: below 16 one could be guessed, and psktool makes no longer ones.
inline constexpr std::size_t tlsKeyShortest = 16;
inline constexpr std::size_t tlsKeyLongest = 64;

/// Bytes of TLS handshake messages of one client that are taken at once. GnuTLS itself bounds the messages.
inline constexpr std::size_t tlsHandshakeInput = std::size_t{16} * 1024;

/// A certificate that runs out within so many days is warned of.
inline constexpr int certificateWarningDays = 14;

// Imports: what remote servers can make us hold or wait for.

/// Imports that one service holds. Each takes a thread while it is enabled; a host with more remote disks
/// than that is unheard of.
inline constexpr std::size_t imports = 1024;

/// Programs that are connected to the socket of one import: enough for every tool that opens several
/// connections.
inline constexpr std::size_t nodeClients = 256;

/// Threads that serve the file of one import. Each has a connection of its own to the server; beyond a few
/// they only wait for each other in the kernel.
inline constexpr std::size_t fileThreads = 4;

/// Requests that the kernel may have under way for readers ahead and asynchronous programs of one file.
inline constexpr unsigned fileRequests = 256;

/// Bytes that the kernel reads ahead of a sequential reader of a file; servers that are far away need more
/// than its usual 128 KiB.
inline constexpr unsigned fileReadAhead = 4U << 20;

/// How often a file that has requests under way looks whether the programs that wait are being killed: a
/// person who has killed one waits for its end.
inline constexpr std::chrono::seconds killedProgramsLook{1};

/// The pause after a connection could not be accepted for want of something.
inline constexpr std::chrono::milliseconds acceptRetry{100};

/// How long a connection to a remote server may take from its first packet to the end of the handshake, and
/// how much of that one of several addresses of a host may take. An operator waits for it.
inline constexpr std::chrono::seconds dialTime{15};
inline constexpr std::chrono::seconds connectTime{5};

/// Threads that look through all exports for a client that asks which match an expression, and how long one
/// search may take: tens of milliseconds are usual, and one that takes seconds is meant to keep us busy. One
/// thread, so that searches never take more of the processors from the data path than one of them.
inline constexpr std::size_t searchThreads = 1;
inline constexpr std::chrono::seconds searchTime{2};

/// Remote servers whose exports are being asked for at the same time: every one that a search of a large
/// network has found, and each takes a socket and some memory, for as long as dialTime.
inline constexpr std::size_t remoteListings = 256;

/// Servers that are asked at the same time about an expression, before anybody has asked for their answers,
/// and how long those answers are kept: whoever asks one server after the other asks the next at once.
inline constexpr std::size_t searchAtOnce = 128;
inline constexpr std::chrono::seconds searchKept{10};

/// How long one of the servers of a search may take in all, and until it takes the connection: a search tells
/// who does not answer, and does not wait for him as an operator would who wants just that server.
inline constexpr std::chrono::milliseconds searchAnswerTime{3'000};
inline constexpr std::chrono::milliseconds searchConnectTime{1'500};

/// Names of hosts that are looked up at the same time. Each takes a thread, for as long as the resolver
/// takes.
inline constexpr int nameLookups = 16;

/// Connections of one import, where the server allows several: more than a few only divide the same path.
inline constexpr std::size_t importConnections = 4;

/// Requests of one import connection that the server has not answered: the depth that stock servers and
/// clients are tuned for. What goes beyond waits here.
inline constexpr std::size_t importRequestsInFlight = 128;

/// Bytes taken from a server at once; larger data go straight to where they belong.
inline constexpr std::size_t importInput = std::size_t{256} * 1024;

/// Requests whose headers and data leave with one system call.
inline constexpr std::size_t importSendBatch = 64;

/// How long requests of programs wait at the kernel's block device while no service gives it a connection:
/// enough for any restart of the service, and an end for whoever waits for one that never comes.
inline constexpr std::chrono::seconds deadKernelConnection{120};

/// How often the kernel looks after requests without an answer. After a restart of the service it asks again
/// those that the old one had at the first look. Each look is a line in the kernel's log.
inline constexpr std::chrono::seconds kernelRequestTick{10};

/// Largest request of the kernel's block device, and how far it reads ahead: large enough to hide the way to
/// the server.
inline constexpr std::size_t kernelRequest = std::size_t{1024} * 1024;
inline constexpr std::size_t kernelReadAhead = std::size_t{4096} * 1024;

/// Pauses before the kernel is offered a connection again that it has not taken.
inline constexpr std::chrono::milliseconds attachFirst{50};
inline constexpr std::chrono::milliseconds attachLongest{1'000};

/// Pauses before a lost connection is made again: from the first to the longest, doubling.
inline constexpr std::chrono::milliseconds reconnectFirst{50};
inline constexpr std::chrono::milliseconds reconnectLongest{10'000};

/// A server says nothing at all for so long, not even that it has received what we sent: the path is dead.
inline constexpr std::chrono::seconds silentPath{30};

/// How long requests wait after such a connection until they are asked again on the next: a host that was
/// stopped as a whole and goes on has by then done what it had received.
inline constexpr std::chrono::seconds settleTime{5};

/// Connections on which the server breaks the protocol, each within so short a life, until nobody tries any
/// more: programs shall hear of it rather than wait for ever.
inline constexpr int violationsInARow = 8;
inline constexpr std::chrono::seconds shortLife{60};

// Discovery: what anybody in the local network can make us hold or wait for.

/// Announcements that are kept, each once for every link and protocol by which it is heard. Two hundred
/// servers that are heard by IPv4 and IPv6 on two links take 800; what is sent beyond the bound is a flood.
inline constexpr std::size_t discoverySightings = 4096;

/// Strings of one TXT record that are read, and bytes of one value that are kept: a sensible record has ten
/// short ones, and a screen has no place for more.
inline constexpr std::size_t discoveryTextStrings = 64;
inline constexpr std::size_t discoveryTextLength = 255;

/// Interfaces that the configuration names.
inline constexpr std::size_t discoveryInterfaces = 64;

/// Records that the responder remembers for each interface and protocol: five for each of a thousand servers.
inline constexpr unsigned int discoveryCache = 5120;

/// Announcements on one interface and protocol that are followed up with questions. Each of them may make us
/// ask for as long as its sender keeps it up.
inline constexpr std::size_t discoveryFollowed = 1024;

/// Names that the server takes one after the other because somebody has the one before: that many servers of
/// one name there may be, and no more effort is owed to somebody who claims them all.
inline constexpr int discoveryConflicts = 1000;

/// How long the first search takes at most: whoever asked is waiting. Servers answer within 120 ms; the rest
/// is for those whose answer was lost.
inline constexpr std::chrono::milliseconds discoveryTime{1'900};

/// Everybody is asked again when somebody looks at the view, but not more often than this.
inline constexpr std::chrono::seconds discoveryAskAgain{5};

/// How long the view is kept alive after anybody looked at it. It costs the network a question now and then.
inline constexpr std::chrono::minutes discoveryInterest{10};

/// How long records of this server's may be remembered by others: the bounds of the setting. Below two
/// seconds nobody could ask again in time; a day is what DNS uses where nothing ever changes.
inline constexpr std::chrono::seconds discoveryTimeToLiveLeast{2};
inline constexpr std::chrono::seconds discoveryTimeToLiveMost{86'400};

/// Pauses before a responder that has ended is started again: from the first to the longest, doubling.
inline constexpr std::chrono::milliseconds discoveryRestartFirst{1'000};
inline constexpr std::chrono::milliseconds discoveryRestartLongest{60'000};

/// How long a responder that was asked to end may take for its goodbye.
inline constexpr std::chrono::milliseconds discoveryGoodbye{2'000};

/// One message between the service and its responder: a sighting with all its texts, each byte escaped.
inline constexpr std::size_t discoveryMessage = std::size_t{64} * 1024;

}  // namespace Nbdd::Limits
