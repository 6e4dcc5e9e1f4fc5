// Support routines of the admin client library: panics, error texts, logging hooks, timers,
// thread priority, branding, start-up, the intrusive list, and the fsports reader.
// Plain functions with integer results; text outs are caller buffers of ADMIN_ERRBUF_LEN bytes.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t ADMIN_ERRBUF_LEN = 256;

// ---- Panics ----

// Receives every panic before the process ends; tests install their own.
using PanicFunc = void (*)(const char* prefix, const char* text, int abortFlag, const char* file,
                           int line);
extern PanicFunc PanicHook;
extern const char* PanicNomenclature;  // "PANIC"

// Logs "PANIC: <Prog> <prefix>"<text>" file <file>, line <line>" to syslog (alert) and stderr,
// then aborts when abortFlag is set, otherwise exits with status 1.
void DefaultPanic(const char* prefix, const char* text, int abortFlag, const char* file, int line);
// Calls PanicHook, then ends the process with status 1 if the hook returns.
[[noreturn]] void DoPanic(const char* prefix, const char* text, int abortFlag, const char* file,
                          int line);

#ifdef __FILE_NAME__
#define QM_ASSERT_FILE __FILE_NAME__
#else
#define QM_ASSERT_FILE __FILE__
#endif
// For impossible states only: never for bytes from the network or a file.
#define QM_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : DoPanic("ASSERT failed ", #cond, 1, QM_ASSERT_FILE, __LINE__))

// ---- Error texts and logging ----

// "[errno %d]: %s" for err (-1: the current errno), trailing blanks cut. Returns out.
char* _FormatSysError(int err, char* out, std::size_t size);
char* FormatSysError(char* out, std::size_t size);

// Standard output, "%s: %s\n" with the level's tag (0 "*Fatal*" ... 5 "*Notice*", 6 "", 7
// "(Debug)").
void mylog(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The library's log output goes through WriteLog when it is set (null by default).
using WriteLogFunc = void (*)(int level, const char* text);
extern WriteLogFunc WriteLog;
// Writes the text to standard output.
void common_WriteLog(int level, const char* text);

// ---- Timing ----

// Microseconds since the epoch, from the clock seam.
std::uint64_t MicroTime();
void start_timer();
void end_timer();
// Prints "<label>: " (when a label is given) and "%0.2f secs\n" to standard output.
void print_timer(const char* label);
void get_timer(double* seconds);

// ---- Thread priority ----

void thrpri_init();
// Moves the calling thread's priority by the table's step for level 1..5; other levels do nothing.
void ThreadPriority(int level);

// ---- Branding ----

inline constexpr std::size_t kBrandLen = 128;
extern char BrandName[kBrandLen];
extern char BrandAbbrv[kBrandLen];
extern char BrandPrompt[kBrandLen];
extern char BrandCompanyAbbreviation[kBrandLen];
extern char BrandBitmap[kBrandLen];
extern char BrandIcon[kBrandLen];
// Reads <root>/config/oem/oem.inf once; without the file the defaults stay and the next call
// tries again.
void configure_branding();

// ---- Paths, start-up, process flags ----

// DRFSROOT, or the sandbox's /Library/Filesystems/Velm. The text stays valid until the calling
// thread calls again.
const char* GetDrfsRoot();

extern const char* Prog;    // "QMADMIN LIBRARY" unless a program names itself
extern const char* FsName;  // "none" unless a program serves one file system
extern int DrfsJournalDebug;
extern int NoMultiplePaths;
extern int Privileged;

// Thread priority table, authentication flag, allocation hooks.
void LibraryInit();
// LibraryInit for a program built on the library: also reads DRFS_JOURNAL_DEBUG and
// QMFS_NOMULTIPLEPATHS, the privilege, seeds srand48 and sets the thread stack attribute.
void ProgramInit(const char* progName);
// True when QMFS_NOMULTIPLEPATHS is set.
int DisallowMultiplePaths();
// The stack attribute that ProgramInit prepared for the library's threads.
void* ProgramThreadAttr();

// True when the effective user is the super user.
int PrivCheck();

// open(2) with close-on-exec; -1 and errno on failure.
int dropen(const char* path, int flags, int mode);

// Reads <root>/config/fsports. Every out may be null and is zeroed first; messages go through
// WriteLog. Returns 0 when the file was read, -1 when it is missing or unreadable.
int genportrange(int* minPort, int* maxPort, int* altPmap, int verbose);

// ---- Intrusive list ----

struct ListHdr;

// Embedded in its owner; a node without an owner is a marker, which plain walks skip.
struct ListNode {
  ListNode* next;
  ListNode* prev;
  ListHdr* hdr;
  void* owner;
};

inline constexpr int kListMarkerPairs = 4;

struct ListHdr {
  ListNode* first;
  ListNode* last;
  // Marker pairs for walks over a list that changes underneath (FpSetMarker).
  ListNode markers[2 * kListMarkerPairs];
  unsigned markersInUse;
};

void InitHdr(ListHdr* hdr);
void FpInitHdr(ListHdr* hdr);
void InitNode(ListNode* node, void* owner);
void AppendNode(ListHdr* hdr, ListNode* node);
void InsertFirstNode(ListHdr* hdr, ListNode* node);
void InsertAfterNode(ListNode* after, ListNode* node);
void InsertBeforeNode(ListNode* before, ListNode* node);
void RemoveNode(ListNode* node);
// Takes the first real node off the list; its owner, or null.
void* RemoveFirstNode(ListHdr* hdr);
// Appends every real node of src to dst; src is left empty of them.
void MoveList(ListHdr* dst, ListHdr* src);
// Owners of the first and last real nodes, or null.
void* FpFirstNode(ListHdr* hdr);
void* FpLastNode(ListHdr* hdr);
// Brackets the present nodes with a free marker pair; its number, or -1 for an empty list.
int FpSetMarker(ListHdr* hdr);
// The owner of the next real node of the walk, or null at its end (and for pair -1).
void* FpIterate(ListHdr* hdr, int pair);
void FpClearMarker(ListHdr* hdr, int pair);
