# Says which #include lines break the rule of who may include whom (docs/architecture.md has the table).
# usage: awk -f layers.awk FILE...    paths relative to the top of the tree; exit status 1 if a line breaks the rule

function allow(area, classes,    list, i, n) {
  n = split(classes, list, " ")
  for (i = 1; i <= n; ++i) allowed[area, list[i]] = 1
}

BEGIN {
  allow("include/orbisk", "standard json orbisk orbisk/sdk orbisk/fileindex")
  allow("common", "standard json orbisk seam common")
  allow("sdk", "standard json orbisk seam common orbisk/sdk sdk")
  allow("fileindex", "standard json orbisk seam common orbisk/sdk sdk orbisk/fileindex fileindex boost")
  allow("platform/include", "standard json seam")
  allow("platform/linux", "standard json seam platform/linux boost third-party")
  allow("services", "standard json orbisk orbisk/sdk orbisk/fileindex seam services/base boost third-party")
  allow("tools", "standard json orbisk orbisk/sdk orbisk/fileindex seam boost third-party")

  # The lock round calls into the platform: declared in sdk, but a lock like others, so it stands on the ground floor.
  exempt["common", "orbisk/sdk/sdk_mutex.h"] = 1

  n = split("alloca assert ctype dirent dlfcn errno fcntl fnmatch ftw getopt glob grp inttypes libgen limits locale " \
            "malloc math mntent netdb poll pthread pwd sched semaphore shadow signal spawn stdarg stdbool stddef " \
            "stdint stdio stdlib string strings syslog termios time ucontext unistd utime wchar wctype", flat, " ")
  for (i = 1; i <= n; ++i) c_library[flat[i] ".h"] = 1
}

# The row of the table that a file stands in; "" for tests and benches, which may include everything.
function area_of(path) {
  if (path ~ /^(include\/orbisk|platform\/include|platform\/linux)\//) {
    split(path, parts, "/")
    return parts[1] "/" parts[2]
  }
  if (path ~ /^(common|sdk|fileindex|services|tools)\//) {
    split(path, parts, "/")
    return parts[1]
  }
  return ""
}

# A program's own folder: services/monitor, tools/fileindexctl.
function program_of(path,    parts, n) {
  n = split(path, parts, "/")
  return parts[1] (n > 2 ? "/" parts[2] : "")
}

function class_of(name, quoted) {
  sub(/^include\/orbisk\//, "orbisk/", name)
  sub(/^platform\/include\//, "", name)
  if (name ~ /(^|\/)\.\.?\//) return "relative path"
  if (name ~ /^orbisk\/(sdk|fileindex)\//) {
    split(name, parts, "/")
    return "orbisk/" parts[2]
  }
  if (name ~ /^orbisk\//) return "orbisk"
  if (name ~ /^nimo\//) return "seam"
  if (name ~ /^platform\/linux\//) return "platform/linux"
  if (name ~ /^(services|tools)\//) return program_of(name)
  if (name ~ /^(common|sdk|fileindex|tests|bench)\//) {
    split(name, parts, "/")
    return parts[1]
  }
  if (name ~ /^json\//) return "json"
  if (name ~ /^boost\//) return "boost"
  if (quoted) return "unknown header"
  if (name ~ /^[a-z_]+$/ || name ~ /^(arpa|asm|linux|net|netinet|sys)\// || name in c_library) return "standard"
  return "third-party"
}

function report(reason) {
  printf "%s:%d: %s\n", FILENAME, FNR, reason
  broken = 1
}

/^[ \t]*#[ \t]*include/ {
  area = area_of(FILENAME)
  if (area == "") next
  if (!match($0, /["<][^">]+[">]/)) {
    report("an include that this check cannot read: " $0)
    next
  }
  quoted = substr($0, RSTART, 1) == "\""
  name = substr($0, RSTART + 1, RLENGTH - 2)
  class = class_of(name, quoted)
  if ((area, class) in allowed || (area, name) in exempt) next
  if ((area == "services" || area == "tools") && class == program_of(FILENAME)) next
  report(area "/ may not include " name " (" class ")")
}

END { exit broken }
