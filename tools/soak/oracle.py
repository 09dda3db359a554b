"""What an error notification of the sync daemon may leave behind: for every
stored connection and session, the values each of their error, status,
linked, is_daemon_enable and is_read_only columns may hold once it has been
handled.  Typed from the error tables, independently of the daemon's code.

A column an action writes may hold the old value or the written one (an
action stops at its first failing write, and a read-only or locked database
makes writes fail); a column no action writes keeps its value.
"""

# Daemon error type -> monitor error code; any other type is code 0.
DAEMON_CODES = {-6: 5, -10: 14, -14: 33, -15: 7, -16: 9, -17: 11, -18: 1, -19: 3, -20: 2,
                -22: 10, -24: 19, -25: 20, -26: 4, -29: 15, -33: 16, -35: 6, -36: 21,
                -41: 8, -45: 34, -46: 35, -48: 36, -50: 39}
# Monitor code -> stored session error, for the codes that act on a session.
SESSION_ERRORS = {1: -1, 2: -1, 3: -2, 7: -3, 9: -4, 10: -5, 11: -6, 15: -8, 8: -10}
# Monitor code -> stored connection errors, for the codes that act on a connection.
CONNECTION_ERRORS = {5: {-6}, 6: {-9}, 14: {-2, -4}, 19: {-7}, 20: {-8}, 21: {-5}, 33: {-10},
                     34: {-11}, 35: {-12}, 39: {-13}}
PAUSE_SESSION = {3, 7, 8, 9, 10, 15}
DISABLE_SESSION = {1, 2, 11}
PAUSE_CONNECTION = {5, 6, 14, 21, 33, 34, 35, 39}
SSL_CHANGE = {19, 20}  # a new signature stored, or the connection paused

CONNECTION_COLUMNS = ("error", "status", "linked")
SESSION_COLUMNS = ("error", "status", "is_daemon_enable", "is_read_only")


def read_state(db):
    """{("c", id): {column: value}, ("s", id): {...}} of every row; sessions
    also carry conn_id and sync_direction."""
    state = {}
    for row in db.execute("SELECT id, %s FROM connection_table" % ", ".join(CONNECTION_COLUMNS)):
        state[("c", row[0])] = dict(zip(CONNECTION_COLUMNS, row[1:]))
    for row in db.execute("SELECT id, conn_id, sync_direction, %s FROM session_table"
                          % ", ".join(SESSION_COLUMNS)):
        state[("s", row[0])] = dict(zip(("conn_id", "sync_direction") + SESSION_COLUMNS, row[1:]))
    return state


def allowed(before, conn_id, sess_id, error_type):
    """For each row and column, the set of values it may hold afterwards."""
    ok = {key: {col: {v} for col, v in row.items()} for key, row in before.items()}
    code = DAEMON_CODES.get(error_type, 0) if isinstance(error_type, int) else 0
    conn, sess = ("c", conn_id), ("s", sess_id)
    if conn not in before:
        return ok  # the notification is dropped: the connection cannot be read
    if sess_id and sess not in before:
        sess = None  # the session record stays empty: no row is written
    elif not sess_id:
        sess = None

    def may(key, col, value):
        ok[key][col].add(value)

    if sess and code in PAUSE_SESSION:
        may(sess, "error", SESSION_ERRORS[code])
        may(sess, "status", 3)
    if sess and code in DISABLE_SESSION:
        may(sess, "error", SESSION_ERRORS[code])
        may(sess, "status", 0)
        may(sess, "is_daemon_enable", 0)
        owner = ("c", before[sess]["conn_id"])
        others = [r for key, r in before.items() if key[0] == "s" and key != sess and
                  r["conn_id"] == before[sess]["conn_id"] and r["is_daemon_enable"]]
        if owner in before and not others:  # the last enabled session: unlinked
            for col, value in (("error", 0), ("status", 3), ("linked", 0)):
                may(owner, col, value)
    if sess and code == 4:
        if before[sess]["sync_direction"] != 2:
            may(sess, "error", -9)
            may(sess, "status", 3)
        may(sess, "is_read_only", 1)
    if code in PAUSE_CONNECTION or code in SSL_CHANGE:
        for value in CONNECTION_ERRORS[code]:
            may(conn, "error", value)
        may(conn, "status", 2)
    return ok


def violations(before, after, conn_id, sess_id, error_type):
    """The columns whose value the tables do not allow, as text."""
    ok = allowed(before, conn_id, sess_id, error_type)
    bad = []
    for key, row in after.items():
        for col, value in row.items():
            if key in ok and col in ok[key] and value not in ok[key][col]:
                bad.append("%s%d.%s = %r (allowed %s)" % (key[0], key[1], col, value,
                                                        sorted(ok[key][col])))
    return bad
