# tolven_add_version_note(target PRODUCT_NAME ... PRODUCT_VERSION ... COPYRIGHT ... VERSION a b c d)
# Embeds a version record into the target. Filled in by the process helpers.
function(tolven_add_version_note target)
endfunction()
