# For scripts/demo: changes in the box while somebody searches, and the figures.
# shellcheck shell=bash

# A word that no file has.
new_word() {
  local word
  until word=heron$((RANDOM % 9000 + 1000))$((RANDOM % 10)) && has_hits 0 "$word"; do :; done
  echo "$word"
}

# follow TITLE HITS QUERY COMMAND...   makes a change and searches until the query has so many hits; sets latency
follow() {
  local title=$1 wanted=$2 query=$3 start end
  shift 3
  sleep 0.3   # what comes at once behind another change is let settle, which is not the question here
  "$@"
  start=$(now_us)
  end=$((start + 180000000))
  until has_hits "$wanted" "$query"; do
    [ "$(now_us)" -lt $end ] || fail "$title: $query has $(hits "$query") hits after 3 minutes, not $wanted"
  done
  latency=$(($(now_us) - start))
  [ -z "$title" ] || printf '  %-34s %7s  %s: %s\n' "$title" "$(duration $latency)" "${query/"$docs"/...}" \
    "$(many "$wanted" hit)"
}

write() {
  printf '%s\n' "$2" >>"$1"
}

# A folder of the share with many files, but not so many that it takes long: "COUNT PATH".
middling_folder() {
  find "$docs" -mindepth 1 -maxdepth 3 -type d -print0 | while IFS= read -r -d '' folder; do
    [[ $folder == *$'\n'* ]] || echo "$(on_disk f "$folder") $folder"
  done | sort -rn | awk '$1 <= 200 && !n++'
}

follow_changes() {
  local word other work=$docs/demo
  chapter "Changes, and how long until a search sees them"
  mkdir "$work"
  word=$(new_word)
  other=$(new_word)
  follow "a new file" 1 "$word" write "$work/first.txt" "a $word stood in the water"
  follow "one more line in it" 1 "$other" write "$work/first.txt" "and an $other flew by"
  follow "the file gets another name" 1 "name:$word content:$other" mv "$work/first.txt" "$work/$word.txt"
  follow "its folder gets another name" 1 "$other folder:$docs/demo-2" mv "$work" "$docs/demo-2"
  has_hits 0 "$other folder:$work" || fail "the file is still found where it was"
  mkdir "$volume/outside"
  word=$(new_word)
  write "$volume/outside/second.txt" "$word"
  has_hits 0 "$word" || fail "what is not in the share is found"
  follow "a folder is moved in from outside" 1 "$word" mv "$volume/outside" "$docs/demo-2/moved-in"
  follow "a file is deleted" 0 "$word" rm "$docs/demo-2/moved-in/second.txt"
  follow_folder
  follow "the folder of all this is deleted" 0 "$other" rm -r "$docs/demo-2"
}

follow_folder() {
  local count folder all
  read -r count folder < <(middling_folder) || return 0
  all=$((count + $(on_disk d "$folder") - 1))   # what is below it, without the folder itself
  [ "$all" -gt 0 ] || return 0
  follow "a copy of a folder of $(many "$count" file)" "$all" "folder:$docs/demo-copy" cp -a "$folder" "$docs/demo-copy"
  follow "the copy gets another name" "$all" "folder:$docs/demo-new" mv "$docs/demo-copy" "$docs/demo-new"
  follow "the copy is deleted" 0 "folder:$docs/demo-new" rm -r "$docs/demo-new"
}

# The same small change again and again, each after the one before is seen.
measure_latency() {
  local i word all=()
  for ((i = 0; i < 21; ++i)); do
    word=$(new_word)
    follow "" 1 "$word" write "$docs/demo-latency.txt" "$word"
    all+=("$latency")
  done
  rm "$docs/demo-latency.txt"
  mapfile -t all < <(printf '%s\n' "${all[@]}" | sort -n)
  latency_median=${all[10]}
  latency_most=${all[20]}
  printf '  %-34s %7s  in the median, %s at most\n' "21 times one more line in a file" "$(duration "$latency_median")" \
    "$(duration "$latency_most")"
}

applied() {
  member operations "$(fileindexctl daemon status --json)"
}

# What a busy hour does, in a moment: 200 new files, edits, saving by rename, renames and deletions.
make_storm() {
  local i
  mkdir "$docs/demo-in"
  for ((i = 0; i < 200; ++i)); do
    echo "storm file $i" >"$docs/demo-in/$i.txt"
    echo "edited" >>"$docs/demo-in/$i.txt"
    chmod 0640 "$docs/demo-in/$i.txt"
  done
  for ((i = 0; i < 200; i += 2)); do
    echo "saved $i" >"$docs/demo-in/$i.new"
    mv "$docs/demo-in/$i.new" "$docs/demo-in/$i.txt"
  done
  for ((i = 1; i < 200; i += 4)); do
    mv "$docs/demo-in/$i.txt" "$docs/demo-in/renamed-$i.txt"
  done
  mv "$docs/demo-in" "$docs/demo-out"
  for ((i = 0; i < 200; i += 5)); do
    rm -f "$docs/demo-out/$i.txt"
  done
  last_word=$(new_word)
  echo "$last_word" >"$docs/demo-out/last.txt"
}

storm() {
  local before start us lines said
  chapter "A storm of changes"
  before=$(applied)
  lines=$(wc -l <"$spy")
  follow "" 1 "marker$$" write "$docs/marker.txt" "marker$$"
  lines=$(wc -l <"$spy")
  before=$(applied)
  start=$(now_us)
  make_storm
  us=$(($(now_us) - start))
  follow "" 1 "$last_word" true
  check_index
  tail -n "+$((lines + 1))" "$spy" >/run/demo/storm
  events=$(wc -l </run/demo/storm)
  operations=$(($(applied) - before))
  [ "$events" -gt 0 ] && [ "$operations" -gt 0 ] && [ "$operations" -lt "$events" ] ||
    fail "$events events became $operations operations"
  echo "200 files made, edited, saved by rename, renamed and deleted within $(duration $us). What the monitor wrote:"
  fileindexctl queue events /run/demo/storm | sed "s|$docs|...|g" | awk 'NR % 250 == 30' | fitted
  echo "$(grouped "$events") events became $(grouped "$operations") operations. The last change was searchable" \
    "$(duration "$latency") after the storm,"
  echo "and then the index has what the disk has."
  rm -r "$docs/demo-out" "$docs/marker.txt"
}

remember_memory() {
  local name
  for name in nimotifyd nimocontentextractd nimoelasticd fileindexd; do
    memory[$name]=$(memory_of "$name")
    [ "${memory[$name]%% *}" -gt 0 ] || fail "$name does not run any more"
  done
}

# Nothing may be lost by it, and what changed meanwhile has to be found.
lose_power() {
  local word gone
  chapter "Power cut"
  word=$(new_word)
  gone=$(new_word)
  follow "" 1 "$gone" write "$docs/demo-gone.txt" "$gone"
  cut_power
  write "$docs/demo-dark.txt" "$word"
  rm "$docs/demo-gone.txt"
  echo "All daemons are killed at once; then one file is written and one deleted, and nobody watches."
  boot
  pid_of fileindexd >/dev/null || fail "the services were not started"
  shown "fileindexctl services prepare      # at the next start; it starts what the configured folders need"
  follow "  what was written in the dark" 1 "$word" true
  follow "  what was deleted in the dark" 0 "$gone" true
  ! grep -q 'DB is not good yet' "$records" ||
    echo "  (The index was still being opened when it was first asked; the library asks again after 30 s.)"
  rm "$docs/demo-dark.txt"
  check_index
}

show_figures() {
  local name
  chapter "Figures"
  printf '  %-32s %s, %s, %s MB\n' "searchable" "$(many "$files" file)" "$(many "$folders" folder)" \
    "$(grouped $(($(du -sk "$docs" | cut -f1) / 1024)))"
  printf '  %-32s %s, %s a second; %s without content\n' "from \"folder add\" to done" "$(seconds "$index_us")" \
    "$(many "$index_rate" file)" "$(grouped "$failed")"
  printf '  %-32s %s in the median, %s at most, with the search\n' "change to searchable" \
    "$(duration "$latency_median")" "$(duration "$latency_most")"
  printf '  %-32s %s to %s\n' "events to operations" "$(grouped "$events")" "$(grouped "$operations")"
  for name in nimotifyd nimocontentextractd nimoelasticd fileindexd; do
    printf '  %-32s %s MB, %s MB at most\n' "memory of $name" $((${memory[$name]% *} / 1024)) \
      $((${memory[$name]#* } / 1024))
  done
}

write_json() {
  local name comma=
  printf '{"files":%d,"folders":%d,"without_content":%d,"index_ms":%d,' "$files" "$folders" "$failed" \
    $((index_us / 1000))
  printf '"latency_ms":{"median":%d,"most":%d},"events":%d,"operations":%d,"memory_kib":{' \
    $((latency_median / 1000)) $((latency_most / 1000)) "$events" "$operations"
  for name in nimotifyd nimocontentextractd nimoelasticd fileindexd; do
    printf '%s"%s":{"now":%d,"most":%d}' "$comma" "$name" "${memory[$name]% *}" "${memory[$name]#* }"
    comma=,
  done
  printf '}}\n'
}

# The last folder takes the index along, and the services.
delete_folder() {
  chapter "The end"
  run fileindexctl folder delete --yes /docs
  ! pid_of fileindexd >/dev/null && ! pid_of nimocontentextractd >/dev/null || fail "the services still run"
  [ ! -e "$volume/@fileindex/docs/db" ] || fail "the index is still there"
  echo "With the last folder its index is gone, and the library has stopped extractor and indexing daemon."
}
