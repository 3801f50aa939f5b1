# Completion of tavix-settings for fish. The program itself knows what a word may become.

function __tavix_settings_complete
    set -l words (commandline -opc)
    $words[1] __complete $words[2..-1] (commandline -ct) 2>/dev/null
end

complete -c tavix-settings -a '(__tavix_settings_complete)'
