#!/usr/bin/env bash
# demo.sh - installs what is missing, builds, and shows the main job on real messages. Your own
# /var/spool is not touched. Exits 0 only if every result was as expected.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

if [ "${1-}" != --inside ]; then
    ensure_packages build python test
    build_preset dev tsmail_tool
    exec "$top/scripts/sandbox" -- "$top/scripts/demo.sh" --inside
fi

# ---- The rest runs in the sandbox, with an empty spool. -------------------------------------------

PATH=$top/build/dev/tools:$PATH
export LC_ALL=C.UTF-8
samples=$top/examples/messages
spool=/var/spool/home/site.test
unexpected=0
code=0
output=''

step() { printf '\n== %s\n' "$*"; }
tell() { printf '   %s\n' "$@"; }

# Shows a tsmail command as a person would type it in the checkout, and its output.
tsmail_shown() {
    local words="$*" all="$samples/*.eml"
    words=${words//"$(echo "$samples"/*.eml)"/"$all"}
    printf '\n$ tsmail %s\n' "${words//"$top/"/}"
    code=0
    output=$(tsmail "$@" 2>&1) || code=$?
    [ -z "$output" ] || printf '%s\n' "$output" | sed 's/^/  /'
    [ "$code" = 0 ] || printf '  (exit code %s)\n' "$code"
}

# expect WHAT COMMAND... - prints whether the command, a plain check, succeeds.
expect() {
    local what=$1
    shift
    if "$@"; then
        printf '  ok: %s\n' "$what"
    else
        printf '  NOT AS EXPECTED: %s\n' "$what"
        unexpected=$((unexpected + 1))
    fi
}

answered() { [ "$code" = "$1" ]; }
says() { grep -qE -- "$1" <<<"$output"; }
says_not() { ! says "$1"; }

# The sum of a size record file, first or second column, by plain means.
record_sum() { awk -v column="$2" '/^ *-?[0-9]+ +-?[0-9]+ *$/ { sum += $column } END { print sum + 0 }' "$1"; }
bytes_below() { find "$@" -path '*/new/*' -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }'; }
messages_in() { find "$@" -path '*/new/*' -type f | wc -l; }
kept_total_is_true() {
    [ "$(record_sum "$1/.maildirsize" 1)" = "$(bytes_below "$1")" ] &&
        [ "$(record_sum "$1/.maildirsize" 2)" = "$(messages_in "$1")" ]
}
# Each sample message is in the folder once, unchanged.
all_samples_in() {
    [ "$(cd "$samples" && sha256sum -- *.eml | cut -c1-64 | sort)" = \
        "$(sha256sum -- "$1"/new/* | cut -c1-64 | sort)" ]
}

show_mailboxes() {
    step "Two people get mailboxes"
    tsmail_shown create ann@site.test
    expect "Ann has the system folders" test -d "$spool/ann~site.test/mail/Inbox/cur"
    tsmail_shown create bert@site.test --folder Projects/Shelves
    expect "a folder within a folder is one, too" test -d "$spool/bert~site.test/mail/Projects/cur"
    tsmail_shown paths ann+Work@site.test --kind maildrop
    expect "ann+Work has the folder Work, once there is one" says '/ann~site.test/mail/Work$'
}

show_delivery() {
    step "Mail comes in"
    tell "All $(find "$samples" -name '*.eml' | wc -l) sample messages for Ann," \
        "then some for a sub-address, whose folder the operator allows to appear."
    tsmail_shown --quiet deliver ann@site.test "$samples"/*.eml
    expect "delivered" answered 0
    expect "every message is there, every byte as it was sent" \
        all_samples_in "$spool/ann~site.test/mail/Inbox"
    tsmail_shown deliver --new-folders ann+Work@site.test "$samples/attachment.eml" "$samples/signed.eml"
    expect "in the folder Work" says '/mail/Work/new/'
    tsmail_shown deliver bert@site.test --folder Projects/Shelves "$samples/plain.eml"
    expect "in the folder that was named" says '/mail/Projects/Shelves/new/'
    tsmail_shown --json deliver bert@site.test "$samples/one-byte.eml"
    expect "for programs there is JSON" says '"size":1}'
}

show_refusals() {
    step "What is refused, and what is put right"
    tsmail_shown deliver carl@site.test "$samples/plain.eml"
    expect "nobody created Carl's mailbox: 67, no such user" answered 67
    tsmail_shown deliver ../../../etc@site.test "$samples/plain.eml"
    expect "an address that leads out of its mailbox: 65, bad data" answered 65
    tsmail_shown deliver 'ann+..|rm@site.test' "$samples/one-byte.eml"
    expect "a tag that is not a folder name is left out: Inbox" says '/mail/Inbox/new/'
}

show_folders() {
    step "What is in the mailboxes"
    tsmail_shown folders ann@site.test
    expect "Ann has 33 messages" says '^total +33 '
    tsmail_shown folders bert@site.test
    expect "Bert has 2" says '^total +2 '
}

show_sizes() {
    step "Their sizes are kept"
    local mailbox=$spool/ann~site.test/mail
    tell "The end of Ann's .maildirsize, one line a message:"
    tail -n 3 "$mailbox/.maildirsize" | sed 's/^/  /'
    expect "it sums up to what her folders hold" kept_total_is_true "$mailbox"
    expect "so does Bert's" kept_total_is_true "$spool/bert~site.test/mail"
    tell "Eight agents deliver at once, 25 messages each:"
    local agent
    for agent in 1 2 3 4 5 6 7 8; do
        (for _ in $(seq 25); do tsmail -q deliver "ann+Agent$agent@site.test" "$samples/plain.eml"; done) &
    done
    wait
    expect "200 more messages" test "$(messages_in "$mailbox")" = 233
    expect "and the kept total is still true" kept_total_is_true "$mailbox"
    tsmail_shown size ann@site.test
    expect "kept is what is there, in every folder" says_not 'differs'
}

show_repair() {
    step "A size file is damaged"
    local mailbox=$spool/ann~site.test/mail
    echo '99999999999999999999 1' >"$mailbox/Inbox/.ts_folder_size"
    echo '7 7' >"$mailbox/.maildirsize"
    tsmail_shown size ann@site.test Inbox
    expect "one sees it" says '^Inbox +- +damaged .* differs$'
    tell "Four agents deliver while the mailbox is recounted:"
    local agent agents=()
    for agent in 1 2 3 4; do
        (for _ in $(seq 10); do tsmail -q deliver ann@site.test "$samples/plain.eml"; done) &
        agents+=($!)
    done
    tsmail_shown recount ann@site.test
    expect "recounted" says 'Inbox: [0-9]+ messages .* kept was damaged'
    wait "${agents[@]}"
    expect "the kept total is true again, each message counted once" kept_total_is_true "$mailbox"
    tsmail_shown size ann@site.test Inbox
    expect "and so is the folder's" says_not 'differs'
}

show_messages() {
    step "Messages, and their sizes in their names"
    local mailbox=$spool/ann~site.test/mail
    tsmail_shown messages ann@site.test Work
    expect "two, with their dates" says '^20..-..-.. ..:..:.. .* KiB +new '
    cp "$samples/signed.eml" "$mailbox/Work/new/by-hand"
    tsmail_shown tag ann@site.test Work
    expect "one came without its size; it has it now" \
        test -e "$mailbox/Work/new/by-hand,#F#S#$(wc -c <"$samples/signed.eml")#E"
    rm "$mailbox/Work/new/by-hand"*
}

show_preferences() {
    step "Ann sets her preferences"
    tsmail_shown pref set ann@site.test uname="Ann Lee" npage=50 autoreply=1
    tsmail_shown pref get ann@site.test uname npage autoreply
    expect "they are kept" says '^npage=50$'
    tsmail_shown pref set ann@site.test npage=500
    expect "what would not come back as it is gets refused" answered 65
}

show_lists() {
    step "and her address lists"
    tsmail_shown list add ann@site.test whitelist bert@example.org '*@garden.example'
    printf 'news@shop.example\nBERT@example.org\n\033[31mred\n' >/tmp/entries
    tsmail_shown list import ann@site.test whitelist /tmp/entries
    expect "a bad entry is named by its line" says '/tmp/entries:3: '
    tsmail_shown list show ann@site.test whitelist
    expect "three entries" says '^ +3 +news@shop.example$'
    tsmail_shown list match ann@site.test whitelist news@GARDEN.example
    expect "patterns match in any letter case" answered 0
}

show_configuration() {
    step "A broken configuration file"
    printf 'timezone = 12\npostmaster = \n' >/tmp/broken.toml
    tsmail_shown config check /tmp/broken.toml
    expect "it says where" says '^/tmp/broken.toml:2:'
}

show_quota() {
    step "Quota"
    tsmail_shown quota set ann@site.test warning 2
    tsmail_shown quota show ann@site.test
    expect "the flag is set, with its number" says '^warning flag +set, value 2$'
    expect "a notice is due" says '^notice due +yes$'
    tell "A stand-in for the submission program keeps what it is given:"
    printf '#!/bin/sh\ncat >/tmp/notice\n' >/bin/sendmail
    chmod 755 /bin/sendmail
    tsmail_shown quota notify ann@site.test --subject "Your mailbox is nearly full"
    expect "the notice was handed over" grep -q '^Subject:Your mailbox is nearly full$' /tmp/notice
    rm /tmp/notice
    tsmail_shown quota notify ann@site.test --subject "Your mailbox is nearly full"
    expect "there is one a day" test ! -e /tmp/notice
    tsmail_shown quota notify ann@site.test --subject $'Full\nBcc: eve@site.test'
    expect "a subject of two lines: 65, bad data" answered 65
    tsmail_shown quota archive
    expect "a table of the archive accounts' share" says '^free +'
}

show_removal() {
    step "Things go"
    local mailbox=$spool/ann~site.test/mail
    tsmail_shown rm ann@site.test Work --dry-run
    expect "it says how much before" says '^would schedule .*/mail/Work: 2 messages'
    tsmail_shown rm ann@site.test Work
    expect "the folder is gone" test ! -e "$mailbox/Work"
    expect "and the kept total is still true" kept_total_is_true "$mailbox"
    tsmail_shown sweep ann@site.test
    expect "now its disk space, too" says '^removed .*/\.deleted\..*Work'
    tsmail_shown rm ann@site.test Inbox
    expect "not a system folder, just so: 65" answered 65
    local message
    message=$(find "$mailbox/Inbox/new" -type f -printf '%f\n' -quit)
    tsmail_shown message rm ann@site.test Inbox "$message"
    expect "a single message goes, and the kept total is true" kept_total_is_true "$mailbox"
    tsmail_shown mailbox remove bert@site.test </dev/null
    expect "nobody to ask: 64" answered 64
    tsmail_shown mailbox remove bert@site.test --yes
    expect "Bert's mailbox is gone" test ! -e "$spool/bert~site.test"
    tsmail_shown mailbox restore bert@site.test
    expect "and comes back, as no sweep was there yet" test -d "$spool/bert~site.test/mail"
    tsmail_shown check-name Work/cur --path --reserved
    expect "a name that no folder may have: 65" answered 65
}

say "This is $(tsmail --version), on an empty spool of its own."
show_mailboxes
show_delivery
show_refusals
show_folders
show_sizes
show_repair
show_messages
show_preferences
show_lists
show_configuration
show_quota
show_removal

echo
[ "$unexpected" = 0 ] || die "$unexpected results were not as expected"
say "Everything was as expected."
