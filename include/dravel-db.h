// The timer store: two SQLite files, their tables and every row operation. Its
// state is the two open connections and, during a start, what the start found and how long it may
// wait still. What a failed operation means is for its caller to decide.
//
// Row operations return 0 or SQLite's result code, and log their failure. A
// reader hands each row to `fn` in a record that lives only during the call, and
// ignores what `fn` returns.
#pragma once

#include "dravel-api.h"
#include "dravel-record.h"

#include <string>

// The main and the wake-up database's files.
constexpr const char *kDravelDbPath = "/opt/dbspace/.dravel.db";
constexpr const char *kWakeupDbPath = "/opt/dbspace/.wakeup_dravel.db";

typedef int (*dravel_row_fn)(const dravel_item *row);
typedef int (*disabled_period_row_fn)(const disabled_period_item *row);

// Puts the finished file `from` in the place of `to`, and on the disk: after a power cut either the
// old or the new one is there. Returns 0, or -1 with errno.
int replace_file(const std::string &from, const std::string &to);

extern "C" {

// Puts back what an interrupted migration left, then checks, creates, opens and migrates both
// files. Returns 0, also without a wake-up database or after a failed migration. Otherwise the
// result code of the main file's failed opening or table creation, or of a failed copy before the
// migration, or SQLITE_CANTOPEN when the old files could not be put back: the daemon then runs
// without a store until its next start and refuses every timer that needs one.
DRAVEL_API int initialize_dravel_db(void);

// Closes the main connection, then the wake-up connection; returns the latter's
// result.
DRAVEL_API int close_dravel_db(void);

// Deletes both files and all that a migration or a failed start left beside them. The open
// connections stay: reads still work, writes are refused, and the next start creates new files.
DRAVEL_API void reset_dravel_db(void);

// 0 when the file at `path` exists and is sound, also when it is no database or is locked: what
// follows fails then, if need be after two seconds. Otherwise -1: the file is missing; or it
// was damaged and has been deleted; or SQLite reports it corrupt and it is still there.
DRAVEL_API int integrity_check(const char *path);

// Creates the file where it is missing and gives it the daemon's owner and mode
// 664. Returns 0, or -1 when the file or its mode fails; a refused owner is logged only.
DRAVEL_API int make_db_file_manual(const char *path);

// Timer rows of the main database.
DRAVEL_API int load_dravel_db(dravel_row_fn fn);
DRAVEL_API int load_wakeup_timer_db(dravel_row_fn fn);   // the rows marked as programmed
DRAVEL_API int insert_dravel_item_db(dravel_item *item); // sets `timer_id` on success
DRAVEL_API int undo_insert_dravel_item_db(void);         // deletes the row inserted last
DRAVEL_API int update_dravel_item_db(const dravel_item *item);
DRAVEL_API int delete_dravel_item_db(int timer_id);
DRAVEL_API int update_disable_period_effect_db(int timer_id, int effect);

// Moves the mark of the programmed timer to the row `timer_id`; with an unknown
// id no row is marked.
DRAVEL_API int set_micom_flag(int timer_id);

// Makes `item` the one row of the wake-up database.
DRAVEL_API int insert_wakeup_dravel_item_db(const dravel_item *item);

// Disabled-period rows of the main database. An update leaves the leap-year
// flags as they are stored.
DRAVEL_API int load_disabled_period_db(disabled_period_row_fn fn);
DRAVEL_API int insert_disabled_period_item_db(disabled_period_item *period); // sets `period_id`
DRAVEL_API int update_disable_period_db(const disabled_period_item *period);
DRAVEL_API int delete_disabled_period_item_db(int period_id);
}
