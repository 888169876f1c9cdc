// How the time of a lookup and of a change grows with the number of records, in the key store and in
// a database: SQLite, with the same records in one table, indexed by UID and key name. Each time the
// file is opened anew, as the key store does it.
//
// Prints a line for each size: the records in each file, then in microseconds of processor time,
// system calls included, the medians of: the key store's lookup, SQLite's lookup, the key store's
// change (a key added and deleted again) and SQLite's. bench/store_growth.gnuplot draws them.

#include "measured_stores.h"
#include "processor_time.h"

#include <sqlite3.h>

#include <stdio.h>
#include <string.h>

static const char* const DATABASE = "keys.db";

// ---------------------------------------------------------------------------------------------
// The database
// ---------------------------------------------------------------------------------------------

static bool execute(sqlite3* database, const std::string& statement)
{
    return sqlite3_exec(database, statement.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

static std::string insertion_of(const std::string& key_name)
{
    return "INSERT INTO keys VALUES('" + std::string(DEVICE_UID) + "', '" + key_name + "', '" +
           KEY_TEXT + "');";
}

// Opens the database, works on it and closes it.
template <typename Work> static bool with_database(Work work)
{
    sqlite3* database = nullptr;
    const bool succeeded = sqlite3_open(DATABASE, &database) == SQLITE_OK && work(database);
    return sqlite3_close(database) == SQLITE_OK && succeeded;
}

static bool make_database(int records)
{
    return with_database([&](sqlite3* database) {
        bool succeeded = execute(database, "CREATE TABLE keys(uid TEXT, name TEXT, key TEXT, "
                                           "PRIMARY KEY(uid, name)) WITHOUT ROWID; BEGIN;");
        for (int i = 1; i <= records; ++i) {
            succeeded = succeeded && execute(database, insertion_of("key" + std::to_string(i)));
        }
        return succeeded && execute(database, "COMMIT;");
    });
}

static bool look_key_up_in_database(const char* key_name)
{
    return with_database([&](sqlite3* database) {
        sqlite3_stmt* query = nullptr;
        const bool found =
            sqlite3_prepare_v2(database, "SELECT key FROM keys WHERE uid = ? AND name = ?", -1,
                               &query, nullptr) == SQLITE_OK &&
            sqlite3_bind_text(query, 1, DEVICE_UID, -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_bind_text(query, 2, key_name, -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_step(query) == SQLITE_ROW &&
            KEY_TEXT == reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
        sqlite3_finalize(query);
        return found;
    });
}

static bool add_and_delete_key_in_database(const char*)
{
    return with_database(
               [](sqlite3* database) { return execute(database, insertion_of("new")); }) &&
           with_database([](sqlite3* database) {
               return execute(database, "DELETE FROM keys WHERE name = 'new' AND uid = '" +
                                            std::string(DEVICE_UID) + "';");
           });
}

// ---------------------------------------------------------------------------------------------
// Measuring
// ---------------------------------------------------------------------------------------------

static bool (*operation_named(const char* name))(const char*)
{
    for (const MeasuredOperation& operation : MEASURED_OPERATIONS) {
        if (strcmp(operation.name, name) == 0) {
            return operation.run;
        }
    }
    return nullptr;
}

// In microseconds; negative when the work failed. As many turns as fit into a second, but 5 to 1,001.
static double median_time_of(bool (*work)(const char*), const char* key_name)
{
    std::vector<double> times;
    double total = 0;
    while (times.size() < 5 || (total < 1 && times.size() < 1001)) {
        times.push_back(processor_time_of([&] { return work(key_name); }));
        if (times.back() < 0) {
            return -1;
        }
        total += times.back();
    }
    return median_of(times) * 1e6;
}

int main()
{
    bool (*const works[])(const char*) = {operation_named("get_key"), look_key_up_in_database,
                                          operation_named("add_and_delete_key"),
                                          add_and_delete_key_in_database};
    const std::filesystem::path stores = make_store_directory();
    bool succeeded = true;
    for (const int size : {10, 30, 100, 300, 1000, 3000, 10000, 30000, 100000}) {
        enter_store(stores / std::to_string(size), size);
        succeeded = make_database(size) && succeeded;
        const std::string last_name = "key" + std::to_string(size);
        printf("%d", size);
        for (const auto work : works) {
            const double time = median_time_of(work, last_name.c_str());
            succeeded = time >= 0 && succeeded;
            printf("\t%.1f", time);
        }
        puts("");
    }
    std::filesystem::current_path("/");
    std::filesystem::remove_all(stores);
    return succeeded ? 0 : 1;
}
