# kovra_list_differences(A B ONLY_A ONLY_B): the items of list A that B lacks, and of B that A
# lacks, for the checks that compare what a build has with what it should have.
function(kovra_list_differences a b onlyA onlyB)
    set(left ${a})
    list(REMOVE_ITEM left ${b})
    set(right ${b})
    list(REMOVE_ITEM right ${a})
    set(${onlyA} ${left} PARENT_SCOPE)
    set(${onlyB} ${right} PARENT_SCOPE)
endfunction()
