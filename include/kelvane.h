/* kelvane.h -- the kelvane client library: sorted sets over a networked store.
 *
 * This header is the whole interface a program needs: handles, status codes,
 * sorted-set flags, the time-to-live marker and the store operations. It is
 * valid C and C++.
 *
 * Conventions shared by every operation:
 *
 * - Keys, members, values and suffixes are byte strings: a pointer and a
 *   size_t length. They may hold any bytes, zero bytes included; no
 *   terminating zero byte is needed or read. A null pointer is accepted only
 *   with length 0.
 * - Every operation but the constructors, destructors and voidtostring
 *   returns a status: one of the KV_ codes below.
 * - Out-parameters are written on every status, failures included: counts,
 *   ranks and scores become 0 and pointers NULL before anything else happens,
 *   and are filled in only on success. A required out-parameter that is NULL
 *   gives KV_INVALID_PARAMETER.
 * - Every buffer handed back through an out-parameter is allocated through
 *   the client's memory manager and belongs to the caller, who frees it with
 *   that manager's release().
 * - Every call is synchronous and atomic, and costs one round trip to the
 *   server that holds its key (a cluster's redirections, the first call of a
 *   server function on each node, which checks that the node holds the
 *   library's functions, a read that finds its member or range missing, and
 *   a read with values of part of a large set cost more). Reads need no
 *   server function: KELVANE_READS, read by kv_client_create, picks how
 *   they are made ("auto", the default; "native"; "functions"), never what
 *   they answer. Every call returns within
 *   connect_attempts x connect_timeout_s + command_timeout_s seconds
 *   (kv_client_create) of being entered, whatever the servers do.
 * - A client may be used by any number of threads at once, and memory
 *   managers may be shared. The threads share its one connection to each
 *   server: calls made at the same time to the same server go out together
 *   (what is queued while a write is under way goes in the next write) and
 *   their replies come back to each caller in order. Each call keeps its own
 *   bound and its own guarantees: one whose time runs out before its command
 *   was sent is never sent; one whose reply is late answers KV_TIMEOUT and
 *   its reply is thrown away when it comes, the connection going on for the
 *   others (unless half of that reply had come, which closes it). Only
 *   kv_client_destroy must wait until no other thread uses the client.
 * - Nothing the server sends is taken on trust: a reply must fit the shape
 *   of its command's and carry back the call's own tag, and counts it
 *   announces are believed only as far as the bytes that carry them. A reply
 *   that fails this, or bytes that no command asked for, close the
 *   connection: nothing is handed out, the call answers KV_SERVER_ERROR
 *   (unless the bytes were found before anything of it was sent, and it went
 *   on over a new connection), and the next call connects again.
 * - A key that holds a value of another kind (a plain set made with kv_sadd
 *   where a sorted set is expected, or the other way round) gives
 *   KV_WRONG_REPLY and changes nothing.
 */
#ifndef KELVANE_H
#define KELVANE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version ----------------------------------------------------------- */
/* The version of this header. kv_version() names the library actually
 * loaded, which may be newer (any 1.x runs a program built against 1.0). */
#define KELVANE_VERSION_MAJOR 1
#define KELVANE_VERSION_MINOR 1
#define KELVANE_VERSION_PATCH 0
#define KELVANE_VERSION_STRING "1.1.0"
#define KELVANE_VERSION_NUMBER \
    (KELVANE_VERSION_MAJOR * 10000 + KELVANE_VERSION_MINOR * 100 + KELVANE_VERSION_PATCH)

/* The loaded library's version as text, "1.1.0". */
const char *kv_version(void);

/* ---- Status codes ------------------------------------------------------ */

#define KV_SUCCESS            0  /* the operation was carried out */
#define KV_WRONG_REPLY       10  /* the key holds a value of another kind */
#define KV_ALREADY_EXISTS    12  /* an insertion named an existing member; the write still landed */
#define KV_NOTFOUND          13  /* the key does not exist; for removals: nothing was removed */
#define KV_INVALID_PARAMETER 15  /* a null handle or out-parameter, a bad length or flag combination */
#define KV_NO_SET_KEY        17  /* the sorted set exists but the member is not in it */

/* Failures of the client itself, of the way to the server, or of the
 * server's state. After KV_TIMEOUT and KV_CONNECTION_LOST the operation may
 * or may not have landed (it is never sent twice). KV_NO_MEMORY and
 * KV_SERVER_ERROR can follow an operation that landed but whose answer could
 * not be handed out or read. After the others nothing ran. */
#define KV_NO_SERVER         100 /* no server registered with kv_server_add */
#define KV_CONNECT_FAILED    101 /* the server refused or did not answer the connection */
#define KV_TIMEOUT           102 /* no answer within the command timeout or the call's deadline */
#define KV_CONNECTION_LOST   103 /* the connection broke while the call was under way */
#define KV_SERVER_ERROR      104 /* the server answered with an error or an unexpected reply: one
                                    of the wrong shape, another call's, more than asked for, a
                                    score that is no number */
#define KV_NO_MEMORY         105 /* the memory manager could not allocate a result buffer */
#define KV_AUTH_FAILED       106 /* the server rejected the credentials given to kv_server_add */
#define KV_SERVER_FULL       107 /* the server is at its memory limit and refuses writes; reads,
                                    removals and kv_del still work, and nothing stored was lost */
#define KV_CLUSTER_DOWN      108 /* the cluster could not serve the key's slot before the call's
                                    deadline (CLUSTERDOWN: a failover, or slots not covered) */
#define KV_TRY_AGAIN         109 /* the key's slot stayed in the middle of a migration until the
                                    call's deadline (TRYAGAIN); nothing ran */
#define KV_LIBRARY_MISMATCH  110 /* the server holds another library under kelvane's function
                                    names (another version or foreign content); nothing ran */
#define KV_NOT_PERMITTED     111 /* the server's access rules do not let this user run the call */
#define KV_TLS_FAILED        112 /* the TLS handshake failed: no TLS at the other end (a handshake
                                    with no answer within the connect timeout counts), TLS where we
                                    spoke plain, no common protocol, or the server refused our
                                    certificate or wants one */
#define KV_CERT_REJECTED     113 /* the server's certificate failed verification: untrusted chain,
                                    name mismatch, expired or not yet valid */
#define KV_BAD_SETTINGS      114 /* a setting (options or environment) cannot be used: an unknown
                                    TLS mode, a file that is missing, unreadable or not a
                                    certificate or key, a key that does not match its certificate */
#define KV_NO_MASTER         115 /* a store behind Sentinels has no master to serve the call just
                                    now: no Sentinel reached names one that answers as master (a
                                    failover under way, a name no Sentinel knows, a named master
                                    that is a replica or does not answer) until the call's
                                    deadline; nothing ran */

/* ---- Sorted-set flags of the variadic reads ---------------------------- */
/* Optional arguments follow the flags in this order, each group only when
 * its bit is set: offset and count (int32_t, ZSET_WITH_LIMIT), the score
 * array (double **, ZSET_WITH_SCORES), then the value array and value-length
 * array (void *** and size_t ** for the range reads; char ** and size_t * for
 * kv_zrank; ZSET_WITH_VALUES). */
#define ZSET_DEFAULT     0
#define ZSET_WITH_SCORES 1
#define ZSET_WITH_VALUES 2
#define ZSET_WITH_LIMIT  4
#define ZSET_REVERSE     8

/* ---- Time-to-live ------------------------------------------------------ */
/* Every write takes a time-to-live t in seconds as its last argument:
 * - a write that creates the key gives it t (0: the key never expires);
 * - on an existing key a plain t changes nothing;
 * - COMMIT_TTL(t) replaces the time-to-live of an existing key
 *   (COMMIT_TTL(0) removes it).
 * The marker is bit 30; the seconds are the bits below it. A negative t
 * gives KV_INVALID_PARAMETER. */
#define KV_TTL_COMMIT_BIT 0x40000000
#define COMMIT_TTL(t) ((int32_t)((t) | KV_TTL_COMMIT_BIT))

/* ---- Memory manager ---------------------------------------------------- */

/* The allocator under a memory manager; ctx is the one given to
 * kv_mm_create. */
typedef void *(*kv_alloc_fn)(void *ctx, size_t size);
typedef void (*kv_free_fn)(void *ctx, void *ptr);

/* Hands out every buffer the library returns to the caller. Only the
 * members below are public; the library keeps more state behind them. */
typedef struct kv_mm {
    /* Allocates size bytes that release() frees. The library uses it for
     * every result; a caller may use it to make buffers of the same kind.
     * Returns NULL when the allocator or the byte limit says no. */
    void *(*allocate)(struct kv_mm *mm, size_t size);
    /* Number of buffers handed out and not yet released. */
    size_t (*live_count)(const struct kv_mm *mm);
    /* Free for the caller's own use; the library never touches it. */
    void *user_data;
    /* Frees a buffer that allocate() handed out. Does nothing with NULL. */
    void (*release)(void *ptr);
} kv_mm;

/* Creates a memory manager. alloc and free replace malloc and free (pass
 * both or neither); ctx is handed to them; byte_limit caps the bytes handed
 * out and not yet released (0: no cap). kv_mm_create(0, 0, 0, 0) is a plain
 * malloc-backed manager. Returns NULL when it cannot allocate itself. */
kv_mm *kv_mm_create(kv_alloc_fn alloc, kv_free_fn free, void *ctx, size_t byte_limit);

/* Destroys a manager. Buffers still out stay valid and can still be
 * released; the manager's own memory goes with the last of them. */
void kv_mm_destroy(kv_mm *mm);

/* ---- Client ------------------------------------------------------------ */

typedef struct kv_client kv_client;

/* Credentials for servers that require AUTH; user may be NULL for the
 * default user. */
typedef struct kv_credentials {
    const char *user;
    const char *password;
} kv_credentials;

/* Creates a client whose results are allocated through mm.
 * connect_timeout_s: seconds to wait for a connection to be set up;
 * command_timeout_s: seconds to wait for the answer to one command, from
 *                    the moment it was sent;
 * connect_attempts:  connection attempts a call makes on a node before it
 *                    gives up on it with KV_CONNECT_FAILED (a cluster then
 *                    routes again, until the call's deadline); a refused
 *                    connection ends them at once, since nothing listens.
 * Values of 0 or below take the defaults 1, 2 and 2. One call, with every
 * connection attempt, redirection, retry and back-off it makes, returns
 * within connect_attempts x connect_timeout_s + command_timeout_s seconds
 * (4 for 1, 2 and 2) of being entered, its own checks and the writing of its
 * command included. Any values work: a bound past a hundred years is held
 * at a hundred years. Returns NULL when mm is NULL or memory runs out. */
kv_client *kv_client_create(int32_t connect_timeout_s, int32_t command_timeout_s, kv_mm *mm,
                            int32_t connect_attempts);

/* Closes the connection and frees the client. Buffers handed out stay the
 * caller's. No other thread may be in a call on the client, or make one
 * after. */
void kv_client_destroy(kv_client *client);

/* Adds a seed: a server of the store (host as dotted-decimal text or a
 * name, or the path of a Unix socket, and port) with the credentials to
 * present to it (NULL: those of the environment, KELVANE_USER and
 * KELVANE_PASSWORD, if any), and connects to it at once. TLS settings come
 * from the environment (kv_server_add_options). May be called several times; every seed belongs to
 * the same store.
 * - A standalone server is the store: calls go to the first seed that
 *   answers, and to the next seed when it cannot be reached.
 * - A Redis Cluster node (a master or a replica) leads to the cluster: the
 *   client asks any reachable seed for the slot map and sends each call to
 *   the master of its key's slot, following the cluster through slot
 *   migrations and failovers. Nodes the cluster names are given the
 *   credentials of the first seed that has some.
 * - A Redis Sentinel, when the master's name is given (KELVANE_SENTINEL_MASTER
 *   here, kv_server_options.sentinel_master with kv_server_add_options),
 *   leads to the master it watches: the client asks the Sentinels for it,
 *   checks that it is a master (ROLE), sends every call there and follows
 *   it through failovers (kv_server_add_options says how).
 * A seed is registered before its connection is tried and stays registered
 * whatever the attempt meets: later calls try it again, and the status says
 * why this attempt failed (kv_last_error() in words; KV_CLUSTER_DOWN for a
 * cluster node that serves no slot, while no seed has given the slot map).
 * Settings that cannot be used give KV_BAD_SETTINGS and register nothing.
 * The same host and port twice gives KV_ALREADY_EXISTS; a standalone server
 * next to a cluster, a Sentinel next to either, a Sentinel seed given for
 * another master's name than the others, and a seed that is a Sentinel
 * given without a master's name give KV_INVALID_PARAMETER. */
int32_t kv_server_add(kv_client *client, const char *host, uint32_t port,
                      const kv_credentials *credentials);

/* ---- Connection settings: TLS, Unix sockets, the environment ----------- */
/* TLS modes of kv_server_options.tls_mode and KELVANE_TLS_MODE. */
#define KV_TLS_UNSET       0 /* the environment decides (KELVANE_TLS_MODE); when that is unset too:
                                verify-full if a CA file or directory, a client certificate or a
                                server name is given, else disable */
#define KV_TLS_DISABLE     1 /* plaintext */
#define KV_TLS_REQUIRE     2 /* encrypt, check nothing: INSECURE against an active attacker, who
                                can stand in for the server and read the password */
#define KV_TLS_VERIFY_CA   3 /* the server's chain must lead to a trusted CA; any name */
#define KV_TLS_VERIFY_FULL 4 /* the chain and the name; the default whenever TLS is on and no mode
                                is given */

/* Settings of one seed, for kv_server_add_options. Each member that is NULL
 * (or KV_TLS_UNSET) is taken from the environment variable named beside it;
 * an empty variable counts as unset. Start from KV_SERVER_OPTIONS_INIT and
 * set what you need:
 *
 *     kv_server_options o = KV_SERVER_OPTIONS_INIT;
 *     o.tls_mode = KV_TLS_VERIFY_FULL;
 *     o.tls_ca_file = "/etc/ssl/redis/ca.crt";
 *     status = kv_server_add_options(client, "redis.example.net", 6380, &o);
 *
 * - TLS is on when the mode is require, verify-ca or verify-full, or when no
 *   mode is given anywhere but a CA file or directory, a client certificate
 *   or a server name is (then verify-full): asking for a check never falls
 *   back to plaintext. TLS 1.2 and 1.3 only. The chain
 *   is checked against tls_ca_file and tls_ca_dir (a directory hashed with
 *   `openssl rehash`), or the system's store when neither is given.
 * - verify-full checks the name the certificate is for against the seed's
 *   host (an IP address against the certificate's IP addresses), or against
 *   tls_server_name. A cluster's nodes are checked against the address the
 *   cluster announces for each, or all against tls_server_name when it is
 *   given. The name is also sent as SNI (host names only: an IP address is
 *   never sent as SNI).
 * - A host that begins with '/' is the path of a Unix domain socket (the
 *   port is then not used, and may be anything). It is plaintext unless
 *   the options themselves set tls_mode: KELVANE_TLS_MODE applies to TCP
 *   seeds only (Redis serves its Unix socket without TLS). verify-full over
 *   a socket needs tls_server_name.
 * - user and password: AUTH happens when a password is given (here or in
 *   KELVANE_PASSWORD); the user is then user, KELVANE_USER, or "default".
 *   The library keeps the password in memory it wipes when it is no longer
 *   needed, and never puts it in any text it returns.
 * - sentinel_master: the seed is a Redis Sentinel, and the store is the
 *   master it watches under that name, with its replicas. The client asks
 *   the Sentinels it knows (SENTINEL get-master-addr-by-name; it learns
 *   the others from SENTINEL sentinels and remembers them) for the master,
 *   connects to it and checks with ROLE that it is one before any call goes
 *   there. A Sentinel that is down, silent, does not know the name or names
 *   a node that is not a master is skipped: each Sentinel gets a share of
 *   the call's time, never all of it. The client follows a failover: a
 *   broken connection, READONLY, a ROLE that is no longer master, or a
 *   failover announced by a Sentinel (+promoted-slave, +switch-master,
 *   watched on one connection) makes it ask the Sentinels again, within
 *   the call's deadline; a call that may have run is never sent again. A
 *   call that finds no master before its deadline answers KV_NO_MASTER.
 *   Several Sentinel seeds may be given, all for the same name.
 * - user, password and the TLS members are the data nodes' (master and
 *   replicas) for every seed; sentinel_user and sentinel_password are the
 *   Sentinels' own, since Sentinels keep users of their own
 *   (requirepass and ACL in sentinel.conf) and need not share the data
 *   nodes'. sentinel_tls_mode KV_TLS_UNSET (and KELVANE_SENTINEL_TLS_MODE
 *   unset) reaches the Sentinels with the data nodes' TLS settings; any
 *   other mode applies to the Sentinels alone, with the same CA, client
 *   certificate and server name (Sentinels often listen in plaintext where
 *   the data is encrypted, or the other way round). A Sentinel's
 *   certificate is checked against its address, or tls_server_name; the
 *   master's against the address the Sentinels name, or tls_server_name.
 * - size: later versions append members and read only those the caller's
 *   size covers; members past it count as NULL. */
typedef struct kv_server_options {
    size_t size;                 /* sizeof(kv_server_options) as the caller compiled it */
    const char *user;            /* NULL: KELVANE_USER, else "default" */
    const char *password;        /* NULL: KELVANE_PASSWORD, else no AUTH */
    int32_t tls_mode;            /* KV_TLS_*; KV_TLS_UNSET: KELVANE_TLS_MODE (disable, require,
                                    verify-ca or verify-full) */
    const char *tls_ca_file;     /* PEM CA certificates; NULL: KELVANE_TLS_CA_FILE */
    const char *tls_ca_dir;      /* NULL: KELVANE_TLS_CA_DIR; with neither: the system store */
    const char *tls_cert_file;   /* client certificate (PEM), for servers that require one;
                                    NULL: KELVANE_TLS_CERT_FILE */
    const char *tls_key_file;    /* its private key (PEM, unencrypted); NULL: KELVANE_TLS_KEY_FILE,
                                    else the certificate file */
    const char *tls_server_name; /* the name to check and send as SNI instead of the host, for
                                    every node of the store; NULL: KELVANE_TLS_SERVER_NAME */
    const char *sentinel_master; /* the seed is a Sentinel and this the name of the master it
                                    watches; NULL: KELVANE_SENTINEL_MASTER, else a data node.
                                    "" gives KV_BAD_SETTINGS */
    const char *sentinel_user;   /* the Sentinels' user; NULL: KELVANE_SENTINEL_USER, else
                                    "default" */
    const char *sentinel_password; /* the Sentinels' password; NULL: KELVANE_SENTINEL_PASSWORD,
                                      else no AUTH with the Sentinels */
    int32_t sentinel_tls_mode;   /* KV_TLS_*, for the Sentinels alone; KV_TLS_UNSET:
                                    KELVANE_SENTINEL_TLS_MODE, else the data nodes' TLS */
} kv_server_options;
#define KV_SERVER_OPTIONS_INIT                                                            \
    { sizeof(kv_server_options), NULL, NULL, KV_TLS_UNSET, NULL, NULL, NULL, NULL, NULL, \
      NULL, NULL, NULL, KV_TLS_UNSET }

/* As kv_server_add, with options; NULL options: everything from the
 * environment. kv_server_add(client, host, port, NULL) takes user, password
 * and TLS from the environment too; kv_server_add with credentials takes
 * them from those and TLS from the environment.
 * KV_BAD_SETTINGS, with the reason in kv_last_error(), when a setting cannot
 * be used: an unknown mode, a file that is missing or unreadable or holds no
 * certificate or key, a key that does not match its certificate, verify-full
 * on a Unix socket without tls_server_name. Such a seed is NOT registered;
 * every other failure leaves it registered, as with kv_server_add. A size
 * too small to cover the user member gives KV_INVALID_PARAMETER.
 * Nodes a cluster names are reached with the settings (credentials and TLS)
 * of the first seed that has credentials, or else of the first seed; so are
 * the masters and the Sentinels that Sentinels name, each with its own
 * kind of settings. */
int32_t kv_server_add_options(kv_client *client, const char *host, uint32_t port,
                              const kv_server_options *options);

/* ---- Why a call failed ------------------------------------------------- */

/* Why the calling thread's last call on this client failed, in words: the
 * certificate check's reason, the server's error line, the file that could
 * not be read...; "" when that call succeeded or gave an answer of the store
 * (KV_NOTFOUND, KV_ALREADY_EXISTS, KV_NO_SET_KEY, KV_WRONG_REPLY). Other
 * threads' calls on the same client never change it. Valid until the
 * thread's next call on the client, or the thread's end (a thread keeps
 * the texts of the last 16 clients it saw fail; an older one reads "").
 * Never holds a password. NULL client: a text that says so. */
const char *kv_last_error(const kv_client *client);

/* The name of a status, "KV_TIMEOUT"; "unknown status" for others. */
const char *kv_status_name(int32_t status);

/* ---- Keys of any kind -------------------------------------------------- */

/* Removes the key whatever it holds. KV_NOTFOUND when it did not exist. */
int32_t kv_del(kv_client *client, const char *key, size_t key_len);

/* The key's remaining time-to-live in whole seconds, rounded up, so that a
 * key that will expire reads at least 1 until it is gone; 0 for a key that
 * never expires. A key that expires further off than INT32_MAX seconds (as
 * another client may have set it) reads INT32_MAX. KV_NOTFOUND and 0 for an
 * absent key. */
int32_t kv_get_ttl(kv_client *client, const char *key, size_t key_len, int32_t *ttl);

/* Adds a member to a plain (unsorted) set. KV_ALREADY_EXISTS when the member
 * was there already. */
int32_t kv_sadd(kv_client *client, const char *key, size_t key_len, const char *member,
                size_t member_len, int32_t ttl);

/* ---- Sorted-set writes ------------------------------------------------- */
/* Each creates the key when it is absent. An insertion that names an
 * existing member answers KV_ALREADY_EXISTS and still lands: the score is
 * replaced, and so is the value where the call gives one. */

/* Adds member with score and no value. An existing member keeps its value. */
int32_t kv_zadd(kv_client *client, const char *key, size_t key_len, double score,
                const char *member, size_t member_len, int32_t ttl);

/* Adds member with score and value. */
int32_t kv_zaddval(kv_client *client, const char *key, size_t key_len, double score,
                   const char *member, size_t member_len, const char *value, size_t value_len,
                   int32_t ttl);

/* Adds count members at once: members[i] (members_len[i] bytes) with
 * scores[i]. KV_ALREADY_EXISTS when any of them existed; the new ones are
 * added all the same. A member named twice in one batch takes its last
 * score. count 0 gives KV_INVALID_PARAMETER. */
int32_t kv_zmadd(kv_client *client, const char *key, size_t key_len, const double *scores,
                 const char *const *members, uint32_t count, const size_t *members_len,
                 int32_t ttl);

/* As kv_zmadd, each member with values[i] (values_len[i] bytes). */
int32_t kv_zmaddval(kv_client *client, const char *key, size_t key_len, const double *scores,
                    const char *const *members, uint32_t count, const size_t *members_len,
                    const char *const *values, const size_t *values_len, int32_t ttl);

/* Adds member with value at the set's highest score plus increment (the
 * increment alone in an empty set). KV_INVALID_PARAMETER, and nothing
 * changes, when that sum is not a number (an infinite increment against the
 * opposite infinity). */
int32_t kv_zaddvalmax(kv_client *client, const char *key, size_t key_len, const char *member,
                      size_t member_len, const char *value, size_t value_len, double increment,
                      int32_t ttl);

/* Adds the member named by the decimal text of (highest score + increment),
 * with that score and no value; the increment alone in an empty set. Whole
 * scores are written as integers ("12"), others in the shortest form that
 * reads back as the same double ("3.5"). When that member exists it gets the
 * score, loses its value, and the call answers KV_ALREADY_EXISTS. The sum is
 * always a number: a whole increment leaves an infinite highest score as it
 * is (the member is then "inf" or "-inf"). */
int32_t kv_zaddmaxinc(kv_client *client, const char *key, size_t key_len, int32_t increment,
                      int32_t ttl);

/* Adds with drift, max being the set's highest score when the call starts:
 * - empty set, or score - max > drift: every earlier member but this one is
 *   removed and member gets score, no value (KV_ALREADY_EXISTS when it was a
 *   member already); *kept is set to NULL;
 * - score - max <= drift: the member that held max (of several, the last in
 *   byte order) takes score and loses its value; member itself is not added;
 *   *kept receives that member's name as NUL-terminated text that the caller
 *   releases. */
int32_t kv_zadddis(kv_client *client, const char *key, size_t key_len, double score,
                   const char *member, size_t member_len, double drift, char **kept, int32_t ttl);

/* Adds increment to member's score (from 0 for a new member or key) and
 * returns the new score, exact, in *new_score. KV_INVALID_PARAMETER, and
 * nothing changes, when the sum is not a number (inf + -inf). */
int32_t kv_zincrby(kv_client *client, const char *key, size_t key_len, const char *member,
                   size_t member_len, double increment, double *new_score, int32_t ttl);

/* ---- Sorted-set reads -------------------------------------------------- */

/* Score and value of member. *value is NULL when the member has no value.
 * KV_NOTFOUND for an absent key, KV_NO_SET_KEY for an absent member. */
int32_t kv_zscore(kv_client *client, const char *key, size_t key_len, const char *member,
                  size_t member_len, double *score, char **value, size_t *value_len);

/* 0-based rank of member, from the lowest score (from the highest with
 * ZSET_REVERSE). With ZSET_WITH_VALUES two more arguments follow: char **
 * value and size_t *value_len. ZSET_WITH_LIMIT gives KV_INVALID_PARAMETER
 * and no optional argument is read. */
int32_t kv_zrank(kv_client *client, const char *key, size_t key_len, const char *member,
                 size_t member_len, uint32_t *rank, int32_t flags, ...);

/* Number of members; 0 and KV_SUCCESS for an absent key. */
int32_t kv_zcard(kv_client *client, const char *key, size_t key_len, uint32_t *count);

/* Number of members with min <= score <= max; 0 for an absent key. */
int32_t kv_zcount(kv_client *client, const char *key, size_t key_len, double min, double max,
                  uint32_t *count);

/* Range reads. A result is *count members in parallel arrays: (*members)[k]
 * holds member k's bytes ((*members_len)[k] of them); with ZSET_WITH_SCORES
 * (*scores)[k] is its score; with ZSET_WITH_VALUES (*values)[k] holds its
 * value ((*values_len)[k] bytes) or is NULL when it has none. Every array
 * and every item is a buffer of its own. An empty result leaves every array
 * NULL. Members come in ascending score order, equal scores in byte order of
 * the names; ZSET_REVERSE turns the whole order round.
 *
 * kv_zrange selects ranks start..stop (negative: from the end, -1 the
 * last); it does not take ZSET_WITH_LIMIT. kv_zrangebyscore selects
 * min <= score <= max, with ZSET_WITH_LIMIT skipping offset members of the
 * selection and keeping count (count < 0: all the rest). KV_NOTFOUND for an
 * absent key. One result holds at most 2^26 (67,108,864) members: a reply
 * that announces more gives KV_SERVER_ERROR. */
int32_t kv_zrange(kv_client *client, const char *key, size_t key_len, int32_t start,
                  int32_t stop, void ***members, size_t *count, size_t **members_len,
                  int32_t flags, ...);
int32_t kv_zrangebyscore(kv_client *client, const char *key, size_t key_len, double min,
                         double max, void ***members, size_t *count, size_t **members_len,
                         int32_t flags, ...);

/* As kv_zrange and kv_zrangebyscore, with suffix_len bytes of suffix
 * appended to every member and to every value that is not NULL; the lengths
 * count both parts. */
int32_t kv_zrange_whole(kv_client *client, const char *key, size_t key_len, int32_t start,
                        int32_t stop, void ***members, size_t *count, size_t **members_len,
                        const char *suffix, size_t suffix_len, int32_t flags, ...);
int32_t kv_zrangebyscore_whole(kv_client *client, const char *key, size_t key_len, double min,
                               double max, void ***members, size_t *count,
                               size_t **members_len, const char *suffix, size_t suffix_len,
                               int32_t flags, ...);

/* A NUL-terminated copy of len bytes at item, allocated through mm. NULL
 * when mm is NULL, item is NULL with len > 0, or allocation fails. */
char *voidtostring(const void *item, size_t len, kv_mm *mm);

/* ---- Removals ---------------------------------------------------------- */

/* Removes member. KV_NOTFOUND when it was not there (or the key is absent). */
int32_t kv_zrem(kv_client *client, const char *key, size_t key_len, const char *member,
                size_t member_len);

/* Removes count members; *removed says how many were there. KV_NOTFOUND
 * and 0 when none was. */
int32_t kv_zmrem(kv_client *client, const char *key, size_t key_len, const char *const *members,
                 uint32_t count, const size_t *members_len, uint32_t *removed);

/* Removes the members with min <= score <= max; *removed counts them. An
 * absent key gives KV_SUCCESS and 0. */
int32_t kv_zremrangebyscore(kv_client *client, const char *key, size_t key_len, double min,
                            double max, uint32_t *removed);

/* Removes ranks start..stop, both included (negative: from the end). An
 * empty range or an absent key gives KV_SUCCESS and 0. */
int32_t kv_zremrangebyrank(kv_client *client, const char *key, size_t key_len, int32_t start,
                           int32_t stop, uint32_t *removed);

#ifdef __cplusplus
}
#endif

#endif /* KELVANE_H */
