# Completion of tavix-settings for fish. The program itself knows what a word may become.

function __tavix_settings_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    for line in ($words[1] __complete $words[2..-1] $current 2>/dev/null)
        if test "$line" != \tfiles
            printf "%s\n" $line
            continue
        end
        set -l option (string match -r -- '^--[^=]*=' $current)
        for path in (__fish_complete_path (string replace -r -- '^--[^=]*=' '' $current))
            printf "%s\n" "$option$path"
        end
    end
end

complete -c tavix-settings -f -a '(__tavix_settings_complete)'
