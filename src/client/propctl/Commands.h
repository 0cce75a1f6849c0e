#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/propctl/Session.h"
#include "client/propctl/Text.h"

/// The verbs. Each prints what it has to say, and returns or throws (`Failure`) how the program ends. A
/// property that is refused or not found does not keep a command from the next one.
namespace propctl {

using propclient::Field;
using Names = std::vector<std::string>;

/// The columns of the table that are meant: people may call "defaultvalues" "default".
Names toColumns(Names names);

/// Throw `Failure` for an unknown column, and for a pattern.
void requireColumns(const Names& columns);
void requireOneName(const std::string& name);

ExitStatus get(Session& session, const Names& names, Field field);

/// `columns` empty: key, value, default and flags.
ExitStatus list(Session& session, const std::string& pattern, const Names& columns, bool onlyChanged);
ExitStatus describe(Session& session, const std::string& name, Field field);
ExitStatus dump(Session& session);

/// Prints the keys that begin with `prefix`, for a shell's completion. Never complains.
ExitStatus completeKeys(Session& session, const std::string& prefix);

ExitStatus set(Session& session, const std::vector<Assignment>& assignments, Field field);
ExitStatus reset(Session& session, const Names& names);

/// With `dryRun` it only tells what would become of each.
ExitStatus load(Session& session, const std::vector<Assignment>& assignments, Field field, bool dryRun);

/// Until SIGINT, SIGTERM or `count` changes of what `names` stand for: keys, patterns and groups; all where
/// there are none. Unless `allowsUnknown`, each has to stand for something that exists. To be called by the
/// main thread, as the last command of the program.
ExitStatus watch(Session& session, const Names& names, bool allowsUnknown, bool withOld,
                 std::optional<unsigned> count);

ExitStatus backup(Session& session, bool allSettings);
ExitStatus restore(Session& session);
ExitStatus sysdump(Session& session);
ExitStatus prepareVersionChange(Session& session);
ExitStatus prepareFactoryReset(Session& session);
ExitStatus ping(Session& session, unsigned count);

/// Needs no session.
ExitStatus check(Output& output, const Names& files);

}  // namespace propctl
